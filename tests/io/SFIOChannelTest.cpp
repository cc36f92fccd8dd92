#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "io/SFIOChannel.h"
#include "support/TestSupport.h"

TEST(SFIOChannel, OpensOnceAndMovesBytes) {
    vorn_test::LogCapture log;
    vorn_test::TempDir dir;
    SFIOChannel channel;
    char buffer[16] = {0};
    EXPECT_EQ(-1, channel.Read(buffer, sizeof buffer));
    EXPECT_EQ(-1, channel.Write("x", 1));
    EXPECT_TRUE(log.Has("buffer is null!!!", "Read", 4));
    EXPECT_TRUE(log.Has("Invalid file descriptor !!!", "Write", 4));
    EXPECT_EQ(1008, channel.Open("", true));
    EXPECT_EQ(ENOENT, channel.Open((dir.path() + "/missing").c_str(), true));
    EXPECT_TRUE(log.Has("open fail,errno:" + std::to_string(ENOENT), "Open", 4));

    std::string path = dir.Write("node", "");
    ASSERT_EQ(0, channel.Open(path.c_str(), true));
    int open = vorn_test::OpenFdCount();
    ASSERT_EQ(0, channel.Open(path.c_str(), true));
    EXPECT_EQ(open, vorn_test::OpenFdCount());
    EXPECT_EQ(0, channel.Write("hello", 5));
    EXPECT_EQ(0, channel.Close());
    ASSERT_EQ(0, channel.Open(path.c_str(), true));
    EXPECT_EQ(5, channel.Read(buffer, sizeof buffer));
    EXPECT_STREQ("hello", buffer);
}

TEST(SFIOChannel, ReadOfADeviceWithoutDataWaitsForIt) {
    vorn_test::TempDir dir;
    std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    SFIOChannel channel;
    ASSERT_EQ(0, channel.Open(fifo.c_str(), false));
    std::thread writer([&] {
        // Late on purpose: the channel must first meet EAGAIN and poll.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_EQ(4, write(fd, "data", 4));
        close(fd);
    });
    char buffer[8] = {0};
    EXPECT_EQ(4, channel.Read(buffer, sizeof buffer - 1));
    EXPECT_STREQ("data", buffer);
    writer.join();
}
