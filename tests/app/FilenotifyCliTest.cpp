#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/capability.h>
#include <sys/fanotify.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Base64Decoder.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/StreamCopier.h>

#include "ChildProcess.h"
#include "TestUtil.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

using JsonLines = std::vector<Poco::JSON::Object::Ptr>;

// The command running in a child process, its stdout and stderr read
// through pipes as lines.
class Cli {
public:
    // cwd: the folder to start in, when not this one.
    explicit Cli(const std::vector<std::string>& args, bool withoutCapSysAdmin = false, const std::string& cwd = "") {
        int out[2];
        int err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
        std::vector<char*> argv;
        std::string binary = FN_CLI_PATH;
        argv.push_back(binary.data());
        std::vector<std::string> copies(args);
        for (auto& arg : copies)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        _pid = ::fork();
        if (_pid == 0) {
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            // Without the capability even for root: it leaves the bounding set.
            if (withoutCapSysAdmin && ::prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN, 0, 0, 0) != 0) ::_exit(99);
            if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) ::_exit(97);
            ::execv(argv[0], argv.data());
            ::_exit(98);
        }
        ::close(out[1]);
        ::close(err[1]);
        _out = out[0];
        _err = err[0];
    }
    ~Cli() {
        if (_pid > 0 && _status < 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
        ::close(_out);
        ::close(_err);
    }

    // Reads lines until one of the stream satisfies match; false after the time-out.
    bool WaitLine(bool fromStderr, const std::function<bool(const std::string&)>& match,
                  milliseconds timeout = milliseconds(10000)) {
        std::vector<std::string>& lines = fromStderr ? errLines : outLines;
        std::size_t seen = 0;
        const auto deadline = steady_clock::now() + timeout;
        for (;;) {
            for (; seen < lines.size(); ++seen)
                if (match(lines[seen])) return true;
            const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
            if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count()))) return false;
        }
    }
    bool WaitStderr(const std::string& text) {
        return WaitLine(true, [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }
    // The JSON lines of stdout so far, parsed; waits until cond holds on them.
    bool WaitJson(const std::function<bool(const std::vector<Poco::JSON::Object::Ptr>&)>& cond) {
        std::vector<Poco::JSON::Object::Ptr> objects;
        return WaitLine(false, [&](const std::string& line) {
            objects.push_back(Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>());
            return cond(objects);
        });
    }
    void Signal(int signal) const { ::kill(_pid, signal); }
    // SIGSTOP, and back once every thread has stopped.
    bool Stop() const {
        ::kill(_pid, SIGSTOP);
        return TestUtil::WaitUntil([&] {
            for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(_pid) + "/task")) {
                std::ifstream stat(task.path() / "stat");
                std::string line;
                std::getline(stat, line);
                if (line.find(") T ") == std::string::npos) return false;
            }
            return true;
        });
    }
    // As a reader such as `head` does when it has had enough.
    void CloseStdout() {
        ::close(_out);
        _out = -1;
    }
    // One page: a few lines fill it while nobody reads.
    bool ShrinkStdout() const { return ::fcntl(_out, F_SETPIPE_SZ, 4096) > 0; }
    // The exit code, or -1 when it has not ended within the time-out.
    int Exit(milliseconds timeout = milliseconds(10000)) {
        TestUtil::WaitUntil(
            [&] {
                int status = 0;
                if (_status < 0 && ::waitpid(_pid, &status, WNOHANG) == _pid) _status = status;
                return _status >= 0;
            },
            timeout);
        while (ReadSome(0)) {
        }
        return _status >= 0 && WIFEXITED(_status) ? WEXITSTATUS(_status) : -1;
    }
    std::string Stderr() const {
        std::string all;
        for (const auto& line : errLines)
            all += line + "\n";
        return all;
    }

    std::vector<std::string> outLines;
    std::vector<std::string> errLines;

private:
    // Waits up to timeoutMs for output and splits what came into lines.
    bool ReadSome(int timeoutMs) {
        pollfd fds[2] = {{_out, POLLIN, 0}, {_err, POLLIN, 0}};
        if (::poll(fds, 2, timeoutMs) <= 0) return false;
        bool got = false;
        for (int i = 0; i < 2; ++i) {
            if ((fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) continue;
            got = true;
            std::string& partial = i == 0 ? _outPartial : _errPartial;
            partial.append(buffer, static_cast<std::size_t>(n));
            for (std::size_t end; (end = partial.find('\n')) != std::string::npos; partial.erase(0, end + 1))
                (i == 0 ? outLines : errLines).push_back(partial.substr(0, end));
        }
        return got;
    }

    pid_t _pid = -1;
    int _out = -1;
    int _err = -1;
    int _status = -1;
    std::string _outPartial;
    std::string _errPartial;
};

std::string Get(const Poco::JSON::Object::Ptr& object, const std::string& key) {
    return object->has(key) ? object->getValue<std::string>(key) : std::string();
}

bool HasEvent(const std::vector<Poco::JSON::Object::Ptr>& objects, const std::string& path, const std::string& name) {
    for (const auto& object : objects) {
        if (Get(object, "path") != path) continue;
        for (const auto& event : *object->getArray("events"))
            if (event.toString() == name) return true;
    }
    return false;
}

TEST(FilenotifyCli, WatchPrintsEveryKindOfEventAsValidJson) {
    TestUtil::TempDir dir;
    const std::string d = dir.path().substr(0, dir.path().size() - 1);
    // Watched from the start: a new folder's watch comes after its event.
    TestUtil::MakeDir(d + "/sub");
    Cli cli({"watch", "-r", "--json", "--no-initial-create", d});
    ASSERT_TRUE(cli.WaitStderr("watching 1 path (0 pending)")) << cli.Stderr();

    TestUtil::MakeDir(d + "/new");
    ASSERT_TRUE(cli.WaitJson([&](const JsonLines& all) { return HasEvent(all, d + "/new", "ISDIR"); }));
    std::ofstream(d + "/sub/f") << "x";
    TestUtil::Rename(d + "/sub/f", d + "/sub/g");
    ASSERT_EQ(0, ::unlink((d + "/sub/g").c_str()));
    ASSERT_TRUE(cli.WaitJson([&](const JsonLines& all) {
        return HasEvent(all, d + "/sub/f", "CLOSE_WRITE") && HasEvent(all, d + "/sub/g", "DELETE");
    })) << ::testing::PrintToString(cli.outLines);
    bool merged = false;
    for (const auto& line : cli.outLines) {
        const auto object = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
        EXPECT_EQ("inotify", Get(object, "source"));
        EXPECT_EQ(d, Get(object, "watch"));
        EXPECT_FALSE(object->has("pid"));
        if (Get(object, "to") == d + "/sub/g") merged = Get(object, "path") == d + "/sub/f";
    }
    EXPECT_TRUE(merged) << "the rename was not one event";

    cli.Signal(SIGTERM);
    EXPECT_EQ(0, cli.Exit());
}

// Names are bytes: JSON gives them back exactly (path_b64 when they are not
// UTF-8), text keeps each event on one line with nothing a terminal acts on
// (OutputFormatTest has every case). The text run watches "." from inside
// the folder: printed absolute.
TEST(FilenotifyCli, AnyNameComesOutExactAsJsonAndOnOneLineAsText) {
    TestUtil::TempDir dir;
    const std::string d = dir.path().substr(0, dir.path().size() - 1);
    const struct {
        std::string name;
        bool utf8;
        std::string text;
    } names[] = {
        {"caf\xc3\xa9", true, "caf\xc3\xa9"},
        {"x\xc0\xaf..\xc0\xafshadow", false, "x\\xc0\\xaf..\\xc0\\xafshadow"},
        {"quote\" new\nline \xe9\xff", false, "quote\" new\\x0aline \\xe9\\xff"},
        {"esc\x1b[2J\x07 back\\slash\t\r", true, "esc\\x1b[2J\\x07 back\\\\slash\\x09\\x0d"},
    };
    Cli json({"watch", "--json", "-e", "create", "--no-initial-create", d});
    Cli text({"watch", "-r", "-e", "create", "."}, false, d);
    ASSERT_TRUE(json.WaitStderr("watching 1 path")) << json.Stderr();
    ASSERT_TRUE(text.WaitStderr("watching 1 path")) << text.Stderr();
    for (const auto& n : names)
        TestUtil::Touch(d + "/" + n.name);
    TestUtil::Touch(d + "/end");

    const auto ends = [](const std::string& line) { return line.size() > 4 && line.substr(line.size() - 4) == "/end"; };
    ASSERT_TRUE(text.WaitLine(false, ends)) << ::testing::PrintToString(text.outLines);
    ASSERT_EQ(std::size(names) + 2, text.outLines.size()) << ::testing::PrintToString(text.outLines);
    EXPECT_EQ("CREATE,ISDIR " + d, text.outLines[0].substr(24));
    for (std::size_t i = 0; i < std::size(names); ++i)
        EXPECT_EQ("CREATE " + d + "/" + names[i].text, text.outLines[i + 1].substr(24));

    ASSERT_TRUE(
        json.WaitLine(false, [](const std::string& line) { return line.find("\\/end\"") != std::string::npos; }));
    ASSERT_EQ(std::size(names) + 1, json.outLines.size());
    for (std::size_t i = 0; i < std::size(names); ++i) {
        const auto object = Poco::JSON::Parser().parse(json.outLines[i]).extract<Poco::JSON::Object::Ptr>();
        std::string bytes = Get(object, "path");
        if (object->has("path_b64")) {
            std::istringstream encoded(Get(object, "path_b64"));
            Poco::Base64Decoder decoder(encoded);
            bytes.clear();
            Poco::StreamCopier::copyToString(decoder, bytes);
        }
        EXPECT_EQ(d + "/" + names[i].name, bytes) << json.outLines[i];
        EXPECT_EQ(!names[i].utf8, object->has("path_b64")) << json.outLines[i];
    }
}

// A reader that goes away, or a file that cannot take more, ends the program
// with its own status and the reason, also when no event comes to write.
TEST(FilenotifyCli, OutputThatFailsEndsTheProgram) {
    TestUtil::TempDir dir;
    const struct {
        std::vector<std::string> args;
        bool closeStdout;
        const char* says;
    } cases[] = {
        {{"watch", "--no-initial-create", dir.path()}, true, "cannot write the output: Broken pipe"},
        {{"watch", "-o", "/dev/full", dir.path()}, false, "cannot write the output: No space left on device"},
    };
    for (const auto& c : cases) {
        Cli cli(c.args);
        ASSERT_TRUE(cli.WaitStderr("watching 1 path")) << cli.Stderr();
        if (c.closeStdout) cli.CloseStdout();
        EXPECT_EQ(5, cli.Exit()) << c.says;
        EXPECT_EQ(std::string("filenotify: ") + c.says, cli.errLines.back()) << cli.Stderr();
    }
}

// A kernel queue that overflowed while nothing read it: its events up to the
// limit, then one Q_OVERFLOW line (printed though -e did not choose it), a
// warning with the setting to raise, and the count at exit.
TEST(FilenotifyCli, KernelQueueOverflowIsReported) {
    const int limit = TestUtil::ReadIntFile("/proc/sys/fs/inotify/max_queued_events");
    if (limit <= 0 || limit > 100000) GTEST_SKIP() << "fs.inotify.max_queued_events is " << limit;
    TestUtil::TempDir dir;
    TestUtil::Touch(dir / "f");
    Cli cli({"watch", "-e", "open,close_write", "--no-initial-create", dir.path()});
    ASSERT_TRUE(cli.WaitStderr("watching 1 path")) << cli.Stderr();
    ASSERT_TRUE(cli.Stop());
    for (int i = 0; i < limit / 2 + 100; ++i)  // OPEN, CLOSE_WRITE: never two alike in a row
        TestUtil::Touch(dir / "f");
    cli.Signal(SIGCONT);
    ASSERT_TRUE(
        cli.WaitLine(false, [](const std::string& line) { return line.find("Q_OVERFLOW") != std::string::npos; }));
    EXPECT_EQ(static_cast<std::size_t>(limit) + 1, cli.outLines.size());
    EXPECT_EQ("Q_OVERFLOW", cli.outLines.back().substr(24));
    EXPECT_TRUE(cli.WaitStderr("raise it with sysctl -w fs.inotify.max_queued_events=N"));
    cli.Signal(SIGTERM);
    EXPECT_EQ(0, cli.Exit());
    EXPECT_EQ("filenotify: 0 events lost in user space, 1 kernel queue overflow", cli.errLines.back());
}

TEST(FilenotifyCli, ExcludesPendingPathsCountAndTimeout) {
    TestUtil::TempDir dir;
    const std::string d = dir.path();
    TestUtil::MakeDir(d + "skip");
    Cli cli({"watch", "-r", "-e", "create", "--exclude", d + "skip", "--exclude-ext", "log", "-c", "3",
             "--no-initial-create", d, d + "later"});
    ASSERT_TRUE(cli.WaitStderr("watching 1 path (1 pending)")) << cli.Stderr();
    EXPECT_TRUE(cli.WaitStderr(d + "later does not exist yet"));
    TestUtil::Touch(d + "skip/x");
    TestUtil::Touch(d + "a.log");
    TestUtil::Touch(d + "a.txt");
    TestUtil::MakeDir(d + "later");
    // The pending path is watched by the module's timer, which counts passes
    // of its loop: events make passes.
    const auto deadline = steady_clock::now() + milliseconds(10000);
    for (int i = 0; cli.outLines.size() < 3 && steady_clock::now() < deadline; ++i) {
        TestUtil::Touch(d + "later/p" + std::to_string(i));
        cli.WaitLine(
            false, [](const std::string&) { return true; }, milliseconds(20));
    }
    EXPECT_EQ(0, cli.Exit());  // -c 3: the third event ends it
    ASSERT_EQ(3u, cli.outLines.size()) << ::testing::PrintToString(cli.outLines);
    EXPECT_NE(std::string::npos, cli.outLines[0].find("CREATE " + d + "a.txt"));
    for (const auto& line : cli.outLines) {
        EXPECT_EQ(std::string::npos, line.find("skip/")) << line;
        EXPECT_EQ(std::string::npos, line.find(".log")) << line;
    }

    Cli timed({"watch", "-t", "1", d});
    EXPECT_EQ(0, timed.Exit());
}

TEST(FilenotifyCli, BadInputExitsWithItsCodeAndOneLine) {
    struct {
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
    };
    for (const auto& c : cases) {
        Cli cli(c.args);
        EXPECT_EQ(c.code, cli.Exit()) << c.says;
        EXPECT_NE(std::string::npos, cli.Stderr().find(c.says)) << cli.Stderr();
    }
    Cli help({"--help"});
    EXPECT_EQ(0, help.Exit());
    EXPECT_TRUE(help.WaitLine(
        false, [](const std::string& l) { return l.find("filenotify guard") != std::string::npos; }, milliseconds(0)));

    for (const auto& args : {std::vector<std::string>{"guard", "/tmp"}, {"watch", "-p", "/tmp"}}) {
        Cli refused(args, true);
        EXPECT_EQ(3, refused.Exit()) << args[0];
        EXPECT_NE(std::string::npos, refused.Stderr().find("needs CAP_SYS_ADMIN")) << refused.Stderr();
    }
    // A plain watch needs inotify only: it works without the capability.
    TestUtil::TempDir dir;
    Cli plain({"watch", "-c", "1", "-e", "create", "--no-initial-create", dir.path()}, true);
    ASSERT_TRUE(plain.WaitStderr("watching 1 path")) << plain.Stderr();
    TestUtil::Touch(dir / "x");
    EXPECT_EQ(0, plain.Exit());
    ASSERT_EQ(1u, plain.outLines.size()) << plain.Stderr();
    EXPECT_EQ("CREATE " + dir / "x", plain.outLines[0].substr(24));
}

// Paths that no creation could make watchable are refused with the reason,
// not kept pending; with nothing watched the program ends with 1. A FIFO, a
// socket and a device are watched as the files they are, also with -r.
TEST(FilenotifyCli, BadPathsAreRefusedAndSpecialFilesAreWatchedAsFiles) {
    Cli refused({"watch", "", "/tmp/" + std::string(4200, 'x')});
    EXPECT_EQ(1, refused.Exit());
    const std::string said = refused.Stderr();
    EXPECT_NE(std::string::npos, said.find("filenotify: cannot watch '': an empty path names nothing")) << said;
    EXPECT_NE(std::string::npos, said.find("bytes long, longer than PATH_MAX")) << said;
    EXPECT_NE(std::string::npos, said.find("watching 0 paths (0 pending)")) << said;

    TestUtil::TempDir dir;
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0644));
    const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = dir / "sock";
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    socketPath.copy(address.sun_path, socketPath.size());
    ASSERT_EQ(0, ::bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address));
    const TestUtil::AtScopeEnd closeSocket([&] { ::close(listening); });

    Cli cli({"watch", "-r", "-e", "create,attrib", dir / "fifo", socketPath, "/dev/null"});
    ASSERT_TRUE(cli.WaitStderr("watching 3 paths (0 pending)")) << cli.Stderr();
    ASSERT_EQ(0, ::chmod((dir / "fifo").c_str(), 0600));
    ASSERT_TRUE(cli.WaitLine(false, [&](const std::string& line) {
        return line.substr(24) == "ATTRIB " + dir / "fifo";
    })) << ::testing::PrintToString(cli.outLines);
    std::vector<std::string> lines;
    for (const auto& line : cli.outLines)
        lines.push_back(line.substr(24));
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ((std::vector<std::string>{"ATTRIB " + dir / "fifo", "CREATE /dev/null", "CREATE " + dir / "fifo",
                                        "CREATE " + socketPath}),
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
    const std::string said = cli.Stderr();
    // The limit is read again when a tree does not fit: another test may
    // have changed it meanwhile, so the numbers are checked against each other.
    std::smatch numbers;
    ASSERT_TRUE(std::regex_search(said, numbers,
                                  std::regex("cannot watch .*: the tree needs ([0-9]+) inotify watches, only ([0-9]+) "
                                             "more are allowed \\(1% of fs.inotify.max_user_watches=([0-9]+)\\)")))
        << said;
    EXPECT_EQ(allowed + 2, std::stoi(numbers[1])) << said;  // the folders and the root
    EXPECT_EQ(std::stoi(numbers[3]) / 100, std::stoi(numbers[2])) << said;
    EXPECT_NE(std::string::npos, said.find("raise them with 'sysctl -w fs.inotify.max_user_watches=N' or the inotify "
                                           "percentage in " +
                                           home.path() + "conf/resource.conf"))
        << said;
}

// Its output blocked (a full pipe nobody reads), guard still answers in
// time; once read, every line states the answer the kernel got.
TEST(FilenotifyCli, GuardDeniesWhatItIsToldAndAllowsTheRestWhateverItsOutput) {
    if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    TestUtil::TempDir dir;
    TestUtil::Touch(dir / "secret.key");
    TestUtil::Touch(dir / "open.txt");
    Cli cli({"guard", "--json", "--deny", "*.key", dir.path()});
    ASSERT_TRUE(cli.ShrinkStdout());
    ASSERT_TRUE(cli.WaitStderr("watching 1 path")) << cli.Stderr();

    std::vector<pid_t> allowed;
    for (int i = 0; i < 40; ++i) {  // far more lines than the pipe holds
        TestUtil::OpeningChild child(dir / "open.txt");
        ASSERT_TRUE(child.Wait(milliseconds(5000)));
        EXPECT_EQ(0, child.result());
        allowed.push_back(child.pid());
    }
    TestUtil::OpeningChild denied(dir / "secret.key");
    ASSERT_TRUE(denied.Wait(milliseconds(5000)));
    EXPECT_EQ(EPERM, denied.result()) << "a blocked output held the verdict back";
    ASSERT_TRUE(cli.WaitJson([&](const JsonLines& all) {
        std::string verdicts;
        std::size_t allows = 0;
        for (const auto& object : all) {
            if (Get(object, "source") != "permission") continue;
            const pid_t pid = object->getValue<int>("pid");
            if (pid == denied.pid()) verdicts += "key:" + Get(object, "verdict");
            if (std::find(allowed.begin(), allowed.end(), pid) != allowed.end() && Get(object, "verdict") == "allow")
                ++allows;
        }
        return verdicts == "key:deny" && allows == allowed.size();
    })) << ::testing::PrintToString(cli.outLines);
    cli.Signal(SIGINT);
    EXPECT_EQ(0, cli.Exit());
}

TEST(FilenotifyCli, GuardSaysWhenItsFolderIsGoneAndGuardedAgain) {
    if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    TestUtil::TempDir dir;
    const std::string guarded = dir / "G";
    TestUtil::MakeDir(guarded);
    Cli cli({"guard", "--json", "--deny", "*.key", guarded});
    ASSERT_TRUE(cli.WaitStderr("watching 1 path")) << cli.Stderr();

    ASSERT_EQ(0, ::rmdir(guarded.c_str()));
    ASSERT_TRUE(cli.WaitStderr("filenotify: " + guarded + " is gone; it is guarded again when it comes back"))
        << cli.Stderr();
    // Made beside it and moved in: the guard may be back before the file is.
    TestUtil::MakeDir(dir / "new");
    TestUtil::Touch(dir / "new/s.key");
    TestUtil::Rename(dir / "new", guarded);
    ASSERT_TRUE(cli.WaitStderr("filenotify: " + guarded + " is guarded again")) << cli.Stderr();
    TestUtil::OpeningChild denied(guarded + "/s.key");
    ASSERT_TRUE(denied.Wait(milliseconds(5000)));
    EXPECT_EQ(EPERM, denied.result());
    // The reports came before that verdict, and are no verdict lines.
    ASSERT_TRUE(cli.WaitJson([&](const JsonLines& all) {
        return !all.empty() && all.back()->has("pid") && all.back()->getValue<int>("pid") == denied.pid();
    })) << ::testing::PrintToString(cli.outLines);
    EXPECT_EQ(1u, cli.outLines.size()) << ::testing::PrintToString(cli.outLines);
    cli.Signal(SIGINT);
    EXPECT_EQ(0, cli.Exit());
}

}  // namespace
