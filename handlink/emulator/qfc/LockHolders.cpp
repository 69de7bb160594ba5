#include "handlink/emulator/qfc/LockHolders.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "handlink/emulator/DeviceState.h"
#include "handlink/emulator/qfc/MediaPath.h"
#include "handlink/wire/Frame.h"

namespace handlink::emu {

namespace {

using Clock = std::chrono::steady_clock;

// What the holder, its timer thread and the post listener share. The listener keeps it alive,
// so a post delivered while the holder is going away finds it still there.
struct HolderState {
    std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    wire::UniqueFd file;
    bool held = false;
    int posts = 0;                       // posts of the yield notification while held
    std::optional<Clock::time_point> yieldAt;
    bool stop = false;                   // the timer thread ends

    void releaseLocked() {
        if (!held) return;
        ::flock(file.get(), LOCK_UN);
        file.reset();
        held = false;
        changed.notify_all();
    }
};

class DeviceLockHolder final : public LockHolder {
public:
    DeviceLockHolder(std::shared_ptr<DeviceState> device, wire::UniqueFd file, const HoldLockOptions& options)
        : _device(device), _options(options), _state(std::make_shared<HolderState>()) {
        _state->file = std::move(file);
        _state->held = true;
        if (!_options.yieldOn.isEmpty()) {
            auto state = _state;
            const HoldLockOptions opts = _options;
            _listener = device->addPostListener([state, opts](const QString& name) {
                if (name != opts.yieldOn) return;
                std::lock_guard lock(state->mutex);
                if (!state->held || state->yieldAt) return;
                if (++state->posts < std::max(opts.afterRequests, 1)) return;
                if (opts.afterMs <= 0) {
                    state->releaseLocked();  // before the post is answered: exact for the poster
                } else {
                    state->yieldAt = Clock::now() + std::chrono::milliseconds(opts.afterMs);
                    state->changed.notify_all();
                }
            });
        }
        if (_options.seconds > 0 || (!_options.yieldOn.isEmpty() && _options.afterMs > 0))
            _timer = std::thread([this] { runTimer(); });
    }

    ~DeviceLockHolder() override {
        release();
        {
            std::lock_guard lock(_state->mutex);
            _state->stop = true;
            _state->changed.notify_all();
        }
        if (_timer.joinable()) _timer.join();
        if (_listener >= 0)
            if (auto device = _device.lock()) device->removePostListener(_listener);
    }

    bool holding() const override {
        std::lock_guard lock(_state->mutex);
        return _state->held;
    }

    void release() override {
        std::lock_guard lock(_state->mutex);
        _state->releaseLocked();
    }

    bool waitReleased(int timeoutMs) override {
        std::unique_lock lock(_state->mutex);
        return _state->changed.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)),
                                        [this] { return !_state->held; });
    }

private:
    // Lets go at the deadline of --seconds or when a yield's delay has passed.
    void runTimer() {
        const std::optional<Clock::time_point> deadline =
            _options.seconds > 0 ? std::optional(Clock::now() + std::chrono::seconds(_options.seconds)) : std::nullopt;
        std::unique_lock lock(_state->mutex);
        while (!_state->stop && _state->held) {
            std::optional<Clock::time_point> next = deadline;
            if (_state->yieldAt && (!next || *_state->yieldAt < *next)) next = _state->yieldAt;
            if (next && Clock::now() >= *next) {
                _state->releaseLocked();
                break;
            }
            if (next)
                _state->changed.wait_until(lock, *next);
            else
                _state->changed.wait(lock);
        }
    }

    std::weak_ptr<DeviceState> _device;
    const HoldLockOptions _options;
    std::shared_ptr<HolderState> _state;
    int _listener = -1;
    std::thread _timer;
};

}  // namespace

namespace {
thread_local int32_t t_lastFailure = 0;
}  // namespace

int32_t lastLockHolderFailure() { return t_lastFailure; }

std::unique_ptr<LockHolder> makeLockHolder(std::shared_ptr<DeviceState> device, const QString& path,
                                           const HoldLockOptions& options, QString* error, int32_t* status) {
    const auto fail = [error, status](int32_t code, const QString& text) -> std::unique_ptr<LockHolder> {
        t_lastFailure = code;
        if (error) *error = text;
        if (status) *status = code;
        return nullptr;
    };
    const auto failErrno = [&fail](const QString& what, int error) {
        return fail(qfc::statusFromErrno(error), QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(error))));
    };
    if (device->isDetached()) return fail(kQFCNotConnectedError, QStringLiteral("the device is detached"));
    wire::UniqueFd root(::open(device->mediaRoot().toLocal8Bit().constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root) return failErrno(QStringLiteral("cannot open the media folder"), errno);
    qfc::ResolvedPath where;
    const QByteArray bytes = path.toUtf8();
    if (HLDStatus refused = qfc::resolvePath(root.get(), std::string_view(bytes.constData(), static_cast<size_t>(bytes.size())),
                                             qfc::FinalLink::Follow, &where))
        return fail(refused, QStringLiteral("path refused: %1 (status %2)").arg(path, QString::number(refused)));
    if (where.name.empty()) return fail(kQFCIsDirectoryError, QStringLiteral("%1 is a folder").arg(path));
    // O_NONBLOCK: a FIFO must not hold the control connection up (it is refused just below).
    wire::UniqueFd file(::openat(where.parent.get(), where.name.c_str(),
                                 O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
    if (!file) {
        if (errno == EISDIR) return fail(kQFCIsDirectoryError, QStringLiteral("%1 is a folder").arg(path));
        return failErrno(QStringLiteral("cannot open %1").arg(path), errno);
    }
    struct stat st;
    if (::fstat(file.get(), &st) != 0) return failErrno(QStringLiteral("cannot open %1").arg(path), errno);
    if (!S_ISREG(st.st_mode)) return fail(kQFCPermissionError, QStringLiteral("%1 is not a regular file").arg(path));
    const int operation = options.exclusive ? LOCK_EX : LOCK_SH;
    if (::flock(file.get(), operation | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) return fail(kQFCWouldBlockError, QStringLiteral("the lock on %1 is held elsewhere").arg(path));
        return failErrno(QStringLiteral("cannot lock %1").arg(path), errno);
    }
    t_lastFailure = 0;
    if (status) *status = 0;
    return std::make_unique<DeviceLockHolder>(std::move(device), std::move(file), options);
}

}  // namespace handlink::emu

namespace handlink::emu {

bool holdLockForConnection(int fd, std::shared_ptr<DeviceState> device, const QString& path,
                           const HoldLockOptions& options, QString* error, int32_t* status) {
    std::unique_ptr<LockHolder> holder = makeLockHolder(device, path, options, error, status);
    if (!holder) return false;
    QCborMap held;
    held.insert(QStringLiteral("status"), kHLDSuccess);
    held.insert(QStringLiteral("held"), true);
    if (wire::writeFrame(fd, held)) {
        // Short waits on the holder, each followed by a look at the connection.
        while (!holder->waitReleased(20) && !device->isDetached()) {
            pollfd peer{fd, POLLIN, 0};
            if (::poll(&peer, 1, 0) != 0) break;  // the client went away or interrupts
        }
    }
    holder->release();
    QCborMap released;
    released.insert(QStringLiteral("status"), kHLDSuccess);
    released.insert(QStringLiteral("released"), true);
    wire::writeFrame(fd, released);
    return true;
}

}  // namespace handlink::emu
