#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FileFanotifyPermitBook.h"
#include "TestUtil.h"

using Engine::FileFanotifyPermitBook;
using Clock = std::chrono::steady_clock;

namespace {

// The book writes its answers into a pipe instead of a fanotify group, and
// the events' descriptors are opened on /dev/null: what it answers, and which
// descriptors it closes, can be read back.
class PermitBookTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, ::pipe2(group, O_CLOEXEC | O_NONBLOCK)); }
    void TearDown() override {
        ::close(group[0]);
        ::close(group[1]);
    }
    static int EventFd() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
    static bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }
    // "fd:allow" or "fd:deny" for each answer written since the last call.
    std::vector<std::string> Answers() {
        std::vector<std::string> out;
        fanotify_response answer{};
        while (::read(group[0], &answer, sizeof answer) == static_cast<ssize_t>(sizeof answer))
            out.push_back(std::to_string(answer.fd) + (answer.response == FAN_ALLOW ? ":allow" : ":deny"));
        return out;
    }
    int group[2] = {-1, -1};
};

TEST_F(PermitBookTest, OneAnswerPerEventAndTheDescriptorLivesUntilAnsweredAndReleased) {
    FileFanotifyPermitBook book(group[1]);
    const auto now = Clock::now();
    const int a = EventFd();
    const int b = EventFd();
    const auto ticketA = book.Add(a, now);
    const auto ticketB = book.Add(b, now);
    EXPECT_EQ(now + FileFanotifyPermitBook::kAnswerWithin, book.DeadlineOf(ticketA));

    EXPECT_TRUE(book.Answer(ticketA, false));
    EXPECT_FALSE(book.Answer(ticketA, true)) << "answered twice";
    EXPECT_TRUE(IsOpen(a)) << "closed while its holder still uses it";
    book.Release(ticketA);
    EXPECT_FALSE(IsOpen(a));

    // b's deadline passes: allowed there, and a verdict after it is refused.
    book.Release(ticketB);
    EXPECT_EQ(Clock::time_point::max(), book.ExpireDue(now + FileFanotifyPermitBook::kAnswerWithin));
    EXPECT_FALSE(book.Answer(ticketB, false));
    EXPECT_FALSE(IsOpen(b));
    EXPECT_EQ((std::vector<std::string>{std::to_string(a) + ":deny", std::to_string(b) + ":allow"}), Answers());
}

TEST_F(PermitBookTest, AFullBookAllowsAtOnceAndAClosedOneWritesNothing) {
    FileFanotifyPermitBook book(group[1]);
    const auto now = Clock::now();
    std::vector<std::uint64_t> tickets;
    for (std::size_t i = 0; i < FileFanotifyPermitBook::kCapacity; ++i)
        tickets.push_back(book.Add(EventFd(), now));
    EXPECT_TRUE(Answers().empty());
    const int extra = EventFd();
    EXPECT_EQ(0u, book.Add(extra, now));
    EXPECT_FALSE(IsOpen(extra));
    EXPECT_EQ((std::vector<std::string>{std::to_string(extra) + ":allow"}), Answers());
    EXPECT_EQ(1u, book.TakeRefused());
    EXPECT_EQ(0u, book.TakeRefused());

    // A stop: everything waiting is allowed, and nothing is written after.
    book.AllowAll(true);
    EXPECT_EQ(FileFanotifyPermitBook::kCapacity, Answers().size());
    EXPECT_FALSE(book.Answer(tickets.front(), false));
    EXPECT_EQ(0u, book.Add(EventFd(), now));
    EXPECT_TRUE(Answers().empty());
}

}  // namespace
