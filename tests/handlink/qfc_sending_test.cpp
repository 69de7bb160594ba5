// The conduit's file sender on its own: bytes taken from a file before the answer goes out, so
// the answer says exactly how many follow; read failures before any byte; a peer that went
// away while the bytes are spliced into its socket (SIGPIPE blocked on the sending thread).
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "handlink/emulator/qfc/FileSending.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/UniqueFd.h"

namespace {

using handlink::emu::qfc::FileSender;
using handlink::emu::qfc::SigpipeBlock;
using handlink::wire::UniqueFd;

std::string pattern(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 13 + i / 4096) & 0xff);
    return data;
}

class FileSenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.filePath(QStringLiteral("data.bin")).toStdString();
        std::ofstream(path, std::ios::binary) << data;
        file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(file);
        int pair[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        near.reset(pair[0]);
        far.reset(pair[1]);
    }

    // Stages, sends with a header announcing the staged count, and reads both back.
    std::string roundTrip(FileSender& sender, uint64_t offset, size_t length) {
        EXPECT_EQ(sender.stage(file.get(), offset, length), 0);
        QCborMap header;
        header.insert(QStringLiteral("length"), static_cast<qint64>(sender.staged()));
        std::string got;
        std::thread reader([&] {
            QCborMap answer;
            EXPECT_EQ(handlink::wire::readFrame(far.get(), &answer), handlink::wire::ReadResult::Ok);
            got.resize(static_cast<size_t>(answer.value(QStringLiteral("length")).toInteger()));
            EXPECT_TRUE(handlink::wire::recvAll(far.get(), got.data(), got.size()));
        });
        EXPECT_TRUE(sender.send(near.get(), header));
        reader.join();
        return got;
    }

    QTemporaryDir dir;
    std::string path;
    const std::string data = pattern(3u << 20);
    UniqueFd file, near, far;
};

TEST_F(FileSenderTest, SendsExactlyTheBytesTakenThroughThePipeAndThroughTheBuffer) {
    FileSender sender;
    ASSERT_TRUE(sender.usesPipeFor(512000));
    EXPECT_FALSE(sender.usesPipeFor(2u << 20));  // more than the pipe holds: the buffer
    EXPECT_TRUE(roundTrip(sender, 0, 512000) == data.substr(0, 512000));
    EXPECT_TRUE(roundTrip(sender, 4097, 300000) == data.substr(4097, 300000));  // unaligned
    EXPECT_TRUE(roundTrip(sender, 100, 2u << 20) == data.substr(100, 2u << 20));
    // At the end of the file: only what is there, announced as such.
    EXPECT_TRUE(roundTrip(sender, data.size() - 10, 512000) == data.substr(data.size() - 10));
    EXPECT_TRUE(roundTrip(sender, data.size() - 10, 4u << 20) == data.substr(data.size() - 10));
    EXPECT_EQ(roundTrip(sender, data.size() + 5, 512000), "");
    // A file that shrank since it was opened.
    ASSERT_EQ(::truncate(path.c_str(), 1000), 0);
    EXPECT_TRUE(roundTrip(sender, 900, 512000) == data.substr(900, 100));
    EXPECT_TRUE(roundTrip(sender, 900, 4u << 20) == data.substr(900, 100));
}

TEST_F(FileSenderTest, AFailedReadBeforeAnyByteIsReportedAndNothingIsStaged) {
    UniqueFd writeOnly(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(writeOnly);
    FileSender sender;
    for (size_t length : {size_t(512000), size_t(4u << 20)}) {
        EXPECT_EQ(sender.stage(writeOnly.get(), 0, length), EBADF) << length;
        EXPECT_EQ(sender.staged(), 0u);
    }
    // The sender goes on working afterwards.
    EXPECT_TRUE(roundTrip(sender, 0, 1000) == data.substr(0, 1000));
}

// Splicing into a socket whose peer is gone raises SIGPIPE on the sending thread; under
// SigpipeBlock the send fails and the process lives on (without it this test ends the process).
// The socket holds only a little, so the peer hangs up after the header while the bytes are
// still being spliced.
TEST_F(FileSenderTest, APeerThatGoesAwayDuringTheBytesFailsTheSendWithoutEndingTheProcess) {
    const int small = 4096;
    ASSERT_EQ(::setsockopt(near.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    bool sent = true;
    std::thread sender([&] {
        const SigpipeBlock quiet;
        FileSender files;
        ASSERT_TRUE(files.usesPipeFor(512000));
        ASSERT_EQ(files.stage(file.get(), 0, 512000), 0);
        QCborMap header;
        header.insert(QStringLiteral("length"), static_cast<qint64>(files.staged()));
        sent = files.send(near.get(), header);
        // Nothing is left pending on this thread either.
        sigset_t pending;
        ASSERT_EQ(sigpending(&pending), 0);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    });
    QCborMap answer;
    ASSERT_EQ(handlink::wire::readFrame(far.get(), &answer), handlink::wire::ReadResult::Ok);
    EXPECT_EQ(answer.value(QStringLiteral("length")).toInteger(), 512000);
    far.reset();
    sender.join();
    EXPECT_FALSE(sent);
    // This thread's own mask is untouched.
    sigset_t mask;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST(SigpipeBlockTest, BlocksOnlyWhileItLivesAndTakesAPendingSignalAway) {
    std::thread([] {
        sigset_t mask;
        {
            const SigpipeBlock quiet;
            ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
            EXPECT_EQ(sigismember(&mask, SIGPIPE), 1);
            ASSERT_EQ(pthread_kill(pthread_self(), SIGPIPE), 0);  // pending, blocked
        }
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
        EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);  // the old mask is back, and we live
    }).join();
}

}  // namespace
