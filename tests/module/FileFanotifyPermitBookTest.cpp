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

// The book writes its answers into a pipe instead of a fanotify group, and
// the events' descriptors are opened on /dev/null: what it answers, and which
// descriptors it closes, can be read back.
TEST(PermitBookTest, OneAnswerPerEventTheDescriptorLivesUntilReleasedAndAFullOrClosedBookAllows) {
    int group[2] = {-1, -1};
    ASSERT_EQ(0, ::pipe2(group, O_CLOEXEC | O_NONBLOCK));
    const TestUtil::AtScopeEnd closePipe([&] {
        ::close(group[0]);
        ::close(group[1]);
    });
    const auto eventFd = [] { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); };
    const auto isOpen = [](int fd) { return ::fcntl(fd, F_GETFD) >= 0; };
    // "fd:allow" or "fd:deny" for each answer written since the last call.
    const auto answers = [&] {
        std::vector<std::string> out;
        fanotify_response answer{};
        while (::read(group[0], &answer, sizeof answer) == static_cast<ssize_t>(sizeof answer))
            out.push_back(std::to_string(answer.fd) + (answer.response == FAN_ALLOW ? ":allow" : ":deny"));
        return out;
    };
    FileFanotifyPermitBook book(group[1]);
    const auto now = std::chrono::steady_clock::now();
    const int a = eventFd();
    const int b = eventFd();
    const auto ticketA = book.Add(a, now);
    const auto ticketB = book.Add(b, now);
    EXPECT_EQ(now + FileFanotifyPermitBook::kAnswerWithin, book.DeadlineOf(ticketA));
    EXPECT_TRUE(book.Answer(ticketA, false));
    EXPECT_FALSE(book.Answer(ticketA, true)) << "answered twice";
    EXPECT_TRUE(isOpen(a)) << "closed while its holder still uses it";
    book.Release(ticketA);
    EXPECT_FALSE(isOpen(a));
    // b's deadline passes: allowed there, and a verdict after it is refused.
    book.Release(ticketB);
    EXPECT_EQ(FileFanotifyPermitBook::Clock::time_point::max(),
              book.ExpireDue(now + FileFanotifyPermitBook::kAnswerWithin));
    EXPECT_FALSE(book.Answer(ticketB, false));
    EXPECT_FALSE(isOpen(b));
    EXPECT_EQ((std::vector<std::string>{std::to_string(a) + ":deny", std::to_string(b) + ":allow"}), answers());

    std::vector<std::uint64_t> tickets;
    for (std::size_t i = 0; i < FileFanotifyPermitBook::kCapacity; ++i)
        tickets.push_back(book.Add(eventFd(), now));
    EXPECT_TRUE(answers().empty());
    const int extra = eventFd();
    EXPECT_EQ(0u, book.Add(extra, now));
    EXPECT_FALSE(isOpen(extra));
    EXPECT_EQ((std::vector<std::string>{std::to_string(extra) + ":allow"}), answers());
    EXPECT_EQ(1u, book.TakeRefused());
    EXPECT_EQ(0u, book.TakeRefused());
    // A stop: everything waiting is allowed, and nothing is written after.
    book.AllowAll(true);
    EXPECT_EQ(FileFanotifyPermitBook::kCapacity, answers().size());
    EXPECT_FALSE(book.Answer(tickets.front(), false));
    EXPECT_EQ(0u, book.Add(eventFd(), now));
    EXPECT_TRUE(answers().empty());
}
