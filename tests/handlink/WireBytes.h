#pragma once
// Raw bytes for the wire tests: the 4-byte big-endian length that starts every frame.
#include <QByteArray>
#include <cstdint>

namespace hltest {

inline QByteArray header(uint32_t length)
{
    QByteArray h(4, 0);
    h[0] = char(length >> 24);
    h[1] = char(length >> 16);
    h[2] = char(length >> 8);
    h[3] = char(length);
    return h;
}

}  // namespace hltest
