#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/capability.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Base64Decoder.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/StreamCopier.h>

#include "ChildProcess.h"
#include "TestUtil.h"

using std::chrono::milliseconds;

namespace {

using JsonLines = std::vector<Poco::JSON::Object::Ptr>;

Poco::JSON::Object::Ptr Parse(const std::string& line) {
    return Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
}

// The command in a child process, its stdout and stderr read through pipes.
class Cli {
public:
    // Without CAP_SYS_ADMIN: dropped from the bounding set, even for root.
    explicit Cli(std::vector<std::string> args, bool withoutCapSysAdmin = false) {
        int outPipe[2];
        int errPipe[2];
        if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) return;
        args.insert(args.begin(), FN_CLI_PATH);
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        if ((_pid = ::fork()) == 0) {
            ::dup2(outPipe[1], 1);
            ::dup2(errPipe[1], 2);
            if (withoutCapSysAdmin && ::prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN, 0, 0, 0) != 0) ::_exit(99);
            ::execv(argv[0], argv.data());
            ::_exit(98);
        }
        ::close(outPipe[1]);
        ::close(errPipe[1]);
        _fds[0] = outPipe[0];
        _fds[1] = errPipe[0];
    }
    ~Cli() {
        if (_pid > 0 && _status < 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
        ::close(_fds[0]);
        ::close(_fds[1]);
    }

    // Reads until cond holds; false after 10 s.
    bool WaitUntil(const std::function<bool()>& cond) {
        for (const auto end = std::chrono::steady_clock::now() + milliseconds(10000); !cond(); ReadSome(10))
            if (std::chrono::steady_clock::now() > end) return false;
        return true;
    }
    bool WaitStdout(const std::string& text) {
        return WaitUntil([&] { return out.find(text) != std::string::npos; });
    }
    bool WaitStderr(const std::string& text) {
        return WaitUntil([&] { return err.find(text) != std::string::npos; });
    }
    // The whole lines of stdout so far; text lines without their time.
    std::vector<std::string> Lines(bool withTime = true) const {
        std::vector<std::string> lines;
        std::istringstream in(out.substr(0, out.rfind('\n') + 1));
        for (std::string line; std::getline(in, line);)
            lines.push_back(withTime ? line : line.erase(0, 24));
        return lines;
    }
    JsonLines Json() const {
        JsonLines objects;
        for (const auto& line : Lines())
            objects.push_back(Parse(line));
        return objects;
    }
    void Signal(int signal) const { ::kill(_pid, signal); }
    // SIGSTOP, and back once every thread has stopped.
    bool Stop() const {
        ::kill(_pid, SIGSTOP);
        return TestUtil::WaitUntil([&] {
            for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(_pid) + "/task")) {
                std::string stat;
                std::getline(std::ifstream(task.path() / "stat"), stat);
                if (stat.find(") T ") == std::string::npos) return false;
            }
            return true;
        });
    }
    // As a reader such as `head` does when it has had enough.
    void CloseStdout() { ::close(std::exchange(_fds[0], -1)); }
    // One page: a few lines fill it while nobody reads.
    bool ShrinkStdout() const { return ::fcntl(_fds[0], F_SETPIPE_SZ, 4096) > 0; }
    // The exit code, or -1 when it has not ended within 10 s.
    int Exit() {
        WaitUntil([&] { return _status >= 0 || ::waitpid(_pid, &_status, WNOHANG) == _pid; });
        while (ReadSome(0)) {
        }
        return _status >= 0 && WIFEXITED(_status) ? WEXITSTATUS(_status) : -1;
    }

    std::string out;
    std::string err;

private:
    // Waits up to timeoutMs for output; false when none came.
    bool ReadSome(int timeoutMs) {
        pollfd fds[2] = {{_fds[0], POLLIN, 0}, {_fds[1], POLLIN, 0}};
        if (::poll(fds, 2, timeoutMs) <= 0) return false;
        bool got = false;
        for (int i = 0; i < 2; ++i) {
            char buffer[4096];
            const ssize_t n = fds[i].revents != 0 ? ::read(_fds[i], buffer, sizeof buffer) : 0;
            if (n > 0) (i == 0 ? out : err).append(buffer, static_cast<std::size_t>(n));
            got = got || n > 0;
        }
        return got;
    }

    pid_t _pid = -1;
    int _fds[2] = {-1, -1};
    int _status = -1;
};

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string Get(const Poco::JSON::Object::Ptr& object, const std::string& key) {
    return object->has(key) ? object->getValue<std::string>(key) : std::string();
}

// The exact bytes of the path, also when it is not UTF-8.
std::string PathOf(const Poco::JSON::Object::Ptr& object) {
    if (!object->has("path_b64")) return Get(object, "path");
    std::istringstream encoded(Get(object, "path_b64"));
    Poco::Base64Decoder decoder(encoded);
    std::string bytes;
    Poco::StreamCopier::copyToString(decoder, bytes);
    return bytes;
}

bool HasEvent(const JsonLines& objects, const std::string& path, const std::string& name) {
    return std::any_of(objects.begin(), objects.end(), [&](const auto& object) {
        const auto events = object->getArray("events");
        return PathOf(object) == path &&
               std::any_of(events->begin(), events->end(), [&](const auto& event) { return event.toString() == name; });
    });
}

// Names are bytes: JSON gives them back exactly (OutputFormatTest has every
// kind of name); a rename is one event.
TEST(FilenotifyCli, WatchPrintsEveryKindOfEventAsValidJson) {
    TestUtil::TempDir dir;
    const std::string d = dir.path().substr(0, dir.path().size() - 1);
    TestUtil::MakeDir(d + "/sub");  // watched from the start: a new folder's watch comes after its event
    Cli cli({"watch", "-r", "--json", "--no-initial-create", d});
    ASSERT_TRUE(cli.WaitStderr("watching 1 path (0 pending)")) << cli.err;
    const std::string names[] = {"quote\" new\nline \xe9\xff", "esc\x1b[2J caf\xc3\xa9"};
    TestUtil::MakeDir(d + "/new");
    std::ofstream(d + "/sub/f") << "x";
    TestUtil::Rename(d + "/sub/f", d + "/sub/g");
    ASSERT_EQ(0, ::unlink((d + "/sub/g").c_str()));
    for (const auto& name : names)
        TestUtil::Touch(std::string(d).append("/sub/").append(name));
    ASSERT_TRUE(cli.WaitUntil([&] {
        const JsonLines all = cli.Json();
        return HasEvent(all, d + "/new", "ISDIR") && HasEvent(all, d + "/sub/f", "CLOSE_WRITE") &&
               HasEvent(all, d + "/sub/g", "DELETE") && HasEvent(all, d + "/sub/" + names[0], "CREATE") &&
               HasEvent(all, d + "/sub/" + names[1], "CREATE");
    })) << cli.out;
    bool merged = false;
    for (const auto& object : cli.Json()) {
        EXPECT_EQ("inotify", Get(object, "source"));
        EXPECT_EQ(d, Get(object, "watch"));
        EXPECT_FALSE(object->has("pid"));
        if (Get(object, "to") == d + "/sub/g") merged = Get(object, "path") == d + "/sub/f";
    }
    EXPECT_TRUE(merged) << "the rename was not one event";
    cli.Signal(SIGTERM);
    EXPECT_EQ(0, cli.Exit());
}

// What is printed and until when. Paths are taken from the folder it was
// started in and printed absolute.
TEST(FilenotifyCli, WhatIsPrintedAndWhenItEnds) {
    TestUtil::TempDir dir;
    const std::string& d = dir.path();
    const std::string relative = std::filesystem::relative(d).string();
    TestUtil::MakeDir(d + "skip");
    Cli cli({"watch", "-r", "-e", "create", "--exclude", d + "skip", "--exclude-ext", "log", "-c", "3",
             "--no-initial-create", relative, relative + "/later"});
    ASSERT_TRUE(cli.WaitStderr("watching 1 path (1 pending)")) << cli.err;
    EXPECT_NE(std::string::npos, cli.err.find(d + "later does not exist yet")) << cli.err;
    for (const char* name : {"skip/x", "a.log", "a.txt"})
        TestUtil::Touch(d + name);
    TestUtil::MakeDir(d + "later");
    TestUtil::Touch(d + "b.txt");
    TestUtil::Touch(d + "c.txt");
    EXPECT_EQ(0, cli.Exit());  // -c 3: the third event ends it
    EXPECT_EQ(
        (std::vector<std::string>{"CREATE " + d + "a.txt", "CREATE,ISDIR " + d + "later", "CREATE " + d + "b.txt"}),
        cli.Lines(false));

    // A reader that goes away ends it with its own status and the reason,
    // also when no event comes to write.
    Cli closed({"watch", "--no-initial-create", d});
    ASSERT_TRUE(closed.WaitStderr("watching 1 path")) << closed.err;
    closed.CloseStdout();
    EXPECT_EQ(5, closed.Exit());
    EXPECT_TRUE(EndsWith(closed.err, "\nfilenotify: cannot write the output: Broken pipe\n")) << closed.err;
}

// A kernel queue that overflowed while nothing read it: its events up to the
// limit, then one Q_OVERFLOW line (printed though -e did not choose it), a
// warning with the setting to raise, and the count at exit.
TEST(FilenotifyCli, KernelQueueOverflowIsReported) {
    constexpr int kQueued = 4096;
    TestUtil::TempDir dir;
    TestUtil::Touch(dir / "f");
    std::optional<Cli> cli;
    {  // the module's queue takes its size when it starts, before it is watching
        TestUtil::ScopedSysctl queue("/proc/sys/fs/inotify/max_queued_events", kQueued);
        if (!queue.ok()) GTEST_SKIP() << queue.reason();
        cli.emplace(std::vector<std::string>{"watch", "-e", "open,close_write", "--no-initial-create", dir.path()});
        ASSERT_TRUE(cli->WaitStderr("watching 1 path")) << cli->err;
    }
    ASSERT_TRUE(cli->Stop());
    for (int i = 0; i < kQueued / 2 + 100; ++i)  // OPEN, CLOSE_WRITE: never two alike in a row
        TestUtil::Touch(dir / "f");
    cli->Signal(SIGCONT);
    ASSERT_TRUE(cli->WaitStdout(" Q_OVERFLOW\n"));
    const auto lines = cli->Lines(false);
    EXPECT_EQ(static_cast<std::size_t>(kQueued) + 1, lines.size());
    EXPECT_EQ("Q_OVERFLOW", lines.back());
    EXPECT_TRUE(cli->WaitStderr("raise it with sysctl -w fs.inotify.max_queued_events=N"));
    cli->Signal(SIGTERM);
    EXPECT_EQ(0, cli->Exit());
    EXPECT_TRUE(EndsWith(cli->err, "\nfilenotify: 0 events lost in user space, 1 kernel queue overflow\n")) << cli->err;
}

// Bad options and paths end it with their own code and the reason. Paths
// that no creation could make watchable are refused, not kept pending: with
// nothing watched the program ends with 1.
TEST(FilenotifyCli, BadInputExitsWithItsCodeAndOneLine) {
    const struct {
        std::vector<std::string> args;
        int code;
        const char* says;
    } cases[] = {
        {{"watch", "--bogus", "/tmp"}, 2, "Unknown option specified: bogus"},
        {{"watch", "-e", "creat", "/tmp"}, 2, "valid names: access, modify"},
        {{"watch", "-c", "0", "/tmp"}, 2, "--count needs a number above 0"},
        {{"watch", "-t", "-5", "/tmp"}, 2, "--timeout needs a number above 0"},
        {{"watch"}, 2, "watch needs at least one path"},
        {{"list", "/tmp"}, 2, "unknown command 'list'"},
        {{"watch", "--deny", "*", "/tmp"}, 2, "belong to guard"},
        {{"watch", "--module", "/nonexistent/lib.so", "/tmp"}, 4, "cannot load the module /nonexistent/lib.so"},
        {{"watch", "", "/tmp/" + std::string(4200, 'x')}, 1, "cannot watch '': an empty path names nothing"},
        {{"watch", "/tmp/" + std::string(4200, 'x')}, 1, "bytes long, longer than PATH_MAX"},
        {{"watch", "-o", "/dev/full", "/tmp"}, 5, "cannot write the output: No space left on device"},
        {{"watch", "-t", "1", "/tmp", "/tmp"}, 0, "cannot watch /tmp: it is watched already"},
        {{"--help"}, 0, ""},
    };
    for (const auto& c : cases) {
        Cli cli(c.args);
        EXPECT_EQ(c.code, cli.Exit()) << c.says;
        EXPECT_NE(std::string::npos, cli.err.find(c.says)) << cli.err;
        // The help, on stdout, only when asked for.
        EXPECT_EQ(c.args[0] == "--help", cli.out.find("filenotify guard") != std::string::npos) << c.says;
    }
    for (const auto& args : {std::vector<std::string>{"guard", "/tmp"}, {"watch", "-p", "/tmp"}}) {
        Cli refused(args, true);
        EXPECT_EQ(3, refused.Exit()) << args[0];
        EXPECT_NE(std::string::npos, refused.err.find("needs CAP_SYS_ADMIN")) << refused.err;
    }
    // A plain watch needs inotify only: it works without the capability.
    TestUtil::TempDir dir;
    Cli plain({"watch", "-c", "1", "-e", "create", "--no-initial-create", dir.path()}, true);
    ASSERT_TRUE(plain.WaitStderr("watching 1 path")) << plain.err;
    TestUtil::Touch(dir / "x");
    EXPECT_EQ(0, plain.Exit());
    EXPECT_EQ(std::vector<std::string>{"CREATE " + dir / "x"}, plain.Lines(false)) << plain.err;
}

// A FIFO, a socket and a device are watched as the files they are, also
// with -r.
TEST(FilenotifyCli, SpecialFilesAreWatchedAsFiles) {
    TestUtil::TempDir dir;
    const std::string fifo = dir / "fifo";
    const std::string sock = dir / "sock";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0644));
    ASSERT_EQ(0, ::mknod(sock.c_str(), S_IFSOCK | 0644, 0));
    Cli cli({"watch", "-r", "-e", "create,attrib", fifo, sock, "/dev/null"});
    ASSERT_TRUE(cli.WaitStderr("watching 3 paths (0 pending)")) << cli.err;
    ASSERT_EQ(0, ::chmod(fifo.c_str(), 0600));
    ASSERT_TRUE(cli.WaitStdout(" ATTRIB " + fifo + "\n")) << cli.out;
    auto lines = cli.Lines(false);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ((std::vector<std::string>{"ATTRIB " + fifo, "CREATE /dev/null", "CREATE " + fifo, "CREATE " + sock}),
              lines);
    cli.Signal(SIGTERM);
    EXPECT_EQ(0, cli.Exit());
}

// A tree larger than the share of fs.inotify.max_user_watches that the
// installation's conf/resource.conf grants is refused before any watch,
// with the module's numbers and how to raise them.
TEST(FilenotifyCli, ATreeOverTheWatchLimitIsRefusedWithTheNumbers) {
    const int kernel = TestUtil::ReadIntFile("/proc/sys/fs/inotify/max_user_watches");
    const int allowed = kernel / 100;
    if (kernel <= 0 || allowed > 20000) GTEST_SKIP() << "fs.inotify.max_user_watches is " << kernel;
    TestUtil::TempDir home;
    TestUtil::MakeDir(home / "conf");
    std::ofstream(home / "conf/resource.conf") << "inotify = 1\n";
    TestUtil::TempDir tree;
    for (int i = 0; i <= allowed; ++i)
        TestUtil::MakeDir(tree / std::to_string(i));
    Cli cli({"watch", "-r", "--home", home.path(), tree.path()});
    EXPECT_EQ(1, cli.Exit());
    // The folders and the root; the limit may have been changed meanwhile.
    for (const std::string& part : {"the tree needs " + std::to_string(allowed + 2) + " inotify watches, only ",
                                    std::string(" more are allowed (1% of fs.inotify.max_user_watches="),
                                    "raise them with 'sysctl -w fs.inotify.max_user_watches=N' or the inotify "
                                    "percentage in " +
                                        home.path() + "conf/resource.conf"})
        EXPECT_NE(std::string::npos, cli.err.find(part)) << cli.err;
}

// Its output blocked (a full pipe nobody reads), guard still answers in
// time; once read, every line states the answer the kernel got. When its
// folder goes and comes back it says so, on stderr only.
TEST(FilenotifyCli, GuardAnswersWhateverItsOutputAndFollowsItsFolder) {
    if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    TestUtil::TempDir dir;
    const std::string guarded = dir / "G";
    TestUtil::MakeDir(guarded);
    TestUtil::Touch(guarded + "/open.txt");
    Cli cli({"guard", "--json", "--deny", "*.key", guarded});
    ASSERT_TRUE(cli.ShrinkStdout());
    ASSERT_TRUE(cli.WaitStderr("watching 1 path")) << cli.err;
    std::vector<pid_t> pids;
    for (int i = 0; i < 40; ++i) {  // far more lines than the pipe holds
        TestUtil::OpeningChild child(guarded + "/open.txt");
        ASSERT_TRUE(child.Wait(milliseconds(5000)));
        EXPECT_EQ(0, child.result());
        pids.push_back(child.pid());
    }
    ASSERT_EQ(0, ::unlink((guarded + "/open.txt").c_str()));
    ASSERT_EQ(0, ::rmdir(guarded.c_str()));
    ASSERT_TRUE(cli.WaitStderr("filenotify: " + guarded + " is gone; it is guarded again when it comes back"))
        << cli.err;
    // Made beside it and moved in: the guard may be back before the file is.
    TestUtil::MakeDir(dir / "new");
    TestUtil::Touch(dir / "new/s.key");
    TestUtil::Rename(dir / "new", guarded);
    ASSERT_TRUE(cli.WaitStderr("filenotify: " + guarded + " is guarded again")) << cli.err;
    TestUtil::OpeningChild denied(guarded + "/s.key");
    ASSERT_TRUE(denied.Wait(milliseconds(5000)));
    EXPECT_EQ(EPERM, denied.result()) << "a blocked output held the verdict back";
    pids.push_back(denied.pid());
    ASSERT_TRUE(cli.WaitUntil([&] { return cli.Lines().size() >= pids.size(); })) << cli.out;
    const JsonLines all = cli.Json();
    ASSERT_EQ(pids.size(), all.size()) << cli.out;
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ("permission", Get(all[i], "source"));
        EXPECT_EQ(pids[i], all[i]->getValue<int>("pid"));
        EXPECT_EQ(i + 1 < pids.size() ? "allow" : "deny", Get(all[i], "verdict"));
    }
    cli.Signal(SIGINT);
    EXPECT_EQ(0, cli.Exit());
}

}  // namespace
