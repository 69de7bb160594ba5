#pragma once
// Joining and cleaning of slash-separated paths, purely as text: nothing here looks at a file
// system, so the same rules serve device paths (relative to the media root) and local paths.
// Every place that joins a folder with a name or a relative path goes through joinPath, so a
// device tree lands under a local folder with one separator between the parts, never two.
// Pure functions; any thread.
#include <QString>

namespace platform {

// a and b joined with exactly one "/" between them, runs of "/" anywhere in the result reduced
// to one, and a trailing "/" dropped unless the result is "/" itself. "." and ".." components
// are kept as they are. An empty a gives b cleaned the same way; an empty b gives a cleaned.
//   "/" + "a" -> "/a"          "./" + "a" -> "./a"        "" + "a" -> "a"
//   "/tmp/x" + "a/b/c.db" -> "/tmp/x/a/b/c.db"            "/tmp/x/" + "/a/" -> "/tmp/x/a"
QString joinPath(const QString& a, const QString& b);

// path in its standard form: runs of "/" reduced to one, "." components dropped, a trailing
// "/" dropped; in an absolute path a ".." removes the component before it (at the root it is
// dropped), in a relative path ".." components are kept. "/" stays "/", "" stays "", and a
// relative path with nothing left is ".". No "~" expansion and no links resolved.
//   "/" -> "/"    "//a/./b/" -> "/a/b"    "/a/../b" -> "/b"    "./a" -> "a"    "a/.." -> "a/.."
QString standardizePath(const QString& path);

}  // namespace platform
