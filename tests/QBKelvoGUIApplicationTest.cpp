// Finding, starting and waiting for the GUI application: the install lookup, the console user,
// the real launch as that user, and the wait for its client.

#include "QBKelvoGUIApplication.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <regex>

#include "platform/QBDesktopEntry.h"
#include "support/ChannelFixture.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

void writeFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

}  // namespace

class QBKelvoGUIApplicationTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }
};

TEST_F(QBKelvoGUIApplicationTest, FindsTheApplicationAtItsPlaceThenByIdentifier) {
    const auto settings = countingSettings(1ms);
    QBKelvoGUIApplication application(server, settings);
    const std::string byId = directory.file("share/applications/com.kelvo.KelvoTunnelwright.desktop");
    EXPECT_EQ(application.getGUIApplicationPath(), std::nullopt);
    fs::create_directories(settings.applicationPath);  // a folder is no entry
    writeFile(byId, "[Desktop Entry]\nX-Kelvo-ShortVersion = 1.2.3\nX-Kelvo-BuildVersion=45\n");
    EXPECT_EQ(application.getGUIApplicationPath(), byId);
    EXPECT_EQ(application.installedVersion(), "1.2.3,45");
    // An earlier data directory hides later ones, also by marking its entry deleted.
    writeFile(directory.file("local/applications/com.kelvo.KelvoTunnelwright.desktop"), "[Desktop Entry]\nHidden=true\n");
    EXPECT_EQ(application.getGUIApplicationPath(), std::nullopt);
    fs::remove(settings.applicationPath);
    writeFile(settings.applicationPath, "[Desktop Entry]\nX-Kelvo-ShortVersion=9\n[Other]\nX-Kelvo-BuildVersion=1\n");
    EXPECT_EQ(application.getGUIApplicationPath(), settings.applicationPath);
    EXPECT_EQ(application.installedVersion(), std::nullopt) << "a key outside the entry's group";
    EXPECT_EQ(QBDesktopEntry::parse("Name=x\n"), std::nullopt) << "no entry group";
}

TEST_F(QBKelvoGUIApplicationTest, ConcurrentWaitersShareOneLaunchAndTakeAClientThatConnects) {
    QBKelvoGUIApplication application(server, countingSettings(2s * sanitizerSlowdown));
    std::vector<std::future<bool>> waiters;
    for (int i = 0; i < 20; ++i)
        waiters.push_back(std::async(std::launch::async, [&] { return application.isGUIApplicationAvailableAndStartIfNeeded(true); }));
    ASSERT_TRUE(eventually([&] { return launchAttempts > 0; }, 5s * sanitizerSlowdown));
    connectClient();
    for (auto& waiter : waiters) {  // woken by the connection, long before the next check
        ASSERT_EQ(waiter.wait_for(1s * sanitizerSlowdown), std::future_status::ready);
        EXPECT_TRUE(waiter.get());
    }
    EXPECT_EQ(launchAttempts, 1);
    EXPECT_TRUE(application.isGUIApplicationAvailableAndStartIfNeeded(false));
}

TEST_F(QBKelvoGUIApplicationTest, AWaitEndsWithFalseAtItsBoundOrWhenTheChannelShutsDown) {
    QBKelvoGUIApplication quick(server, countingSettings(10ms)), slow(server, countingSettings(10s));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(quick.isGUIApplicationAvailableAndStartIfNeeded(true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
    auto waiter = std::async(std::launch::async, [&] { return slow.isGUIApplicationAvailableAndStartIfNeeded(true); });
    ASSERT_TRUE(eventually([&] { return launchAttempts == 2; }, 5s * sanitizerSlowdown));
    server->shutdown();
    ASSERT_EQ(waiter.wait_for(5s * sanitizerSlowdown), std::future_status::ready);
    EXPECT_FALSE(waiter.get());
    EXPECT_FALSE(slow.isGUIApplicationAvailableAndStartIfNeeded(true));
    EXPECT_EQ(launchAttempts, 2) << "no launch once the channel has shut down";
}

// Launches a probe that reports what it finds, one line each: user, group and groups; the
// descriptors it holds (0 to 63); where its output goes; working directory; session variables;
// arguments. Written whole, by rename, so that a reader never sees half of it.
class QBKelvoGUIApplicationLaunchTest : public QBKelvoGUIApplicationTest {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "SKIP: taking another user's ids needs root";
        QBKelvoGUIApplicationTest::SetUp();
        auto found = QBConsoleUser::fromPasswordDatabase("nobody");
        ASSERT_TRUE(found) << "no user 'nobody' in the password database";
        user = nobody = *found;
        user.display = nobody.display = ":5";
        // The probes write their reports as nobody; the entry stays root's alone.
        ::chmod(directory.path().c_str(), 0711);
        fs::create_directory(directory.file("reports"));
        ::chmod(directory.file("reports").c_str(), 0777);
        writeFile(settings.applicationPath, "[Desktop Entry]\n");
        settings.launcher = probe("launched");
        settings.serviceManager.runtimeDirectoryRoot = directory.file("run");
        settings.consoleUser = [this] { return std::optional(user); };
        for (const auto group : nobody.supplementaryGroups()) groups += (groups.empty() ? "" : " ") + std::to_string(group);
    }

    std::vector<std::string> probe(const std::string& name) const {
        const auto path = report(name);
        return {"/bin/bash", "-c",
                "for fd in $(seq 0 63); do [ -e /proc/$$/fd/$fd ] && fds=\"$fds$fd \"; done; "
                "output=$(readlink /proc/$$/fd/1); { id -u; id -g; id -G; echo \"$fds\"; echo \"$output\"; pwd; "
                "echo \"$DISPLAY $XDG_RUNTIME_DIR\"; echo \"$*\"; } > " + path + ".part && mv " + path + ".part " + path,
                "sh"};
    }
    std::string report(const std::string& name) const { return directory.file("reports/" + name); }
    std::vector<std::string> reportLines(const std::string& name) {
        EXPECT_TRUE(eventually([&] { return fs::exists(report(name)); }, 5s * sanitizerSlowdown));
        std::ifstream text(report(name));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        return lines;
    }

    QBConsoleUser nobody, user;
    std::string groups;  // nobody's, as id -G prints them
    QBKelvoGUIApplication::Settings settings = countingSettings(1s);  // its console user replaced
};

// Without a service manager the launcher itself runs, detached, as the console user, with the
// session's environment and nothing of ours; root and the logged-out name are never used.
TEST_F(QBKelvoGUIApplicationLaunchTest, WithoutAServiceManagerTheLauncherRunsCleanAsTheUser) {
    QBKelvoGUIApplication application(server, settings);
    for (const auto& [uid, gid, name] : {std::tuple{0u, nobody.groupId, nobody.name}, {nobody.userId, 0u, nobody.name},
                                         {nobody.userId, nobody.groupId, std::string(QBKelvoGUIApplication::loggedOutUserName)}}) {
        user.userId = uid, user.groupId = gid, user.name = name;
        application.launchGUIApplication();
    }
    std::this_thread::sleep_for(200ms * sanitizerSlowdown);  // time for a launch that should not run
    ASSERT_FALSE(fs::exists(report("launched"))) << ::testing::PrintToString(reportLines("launched"));
    user = nobody;
    const int leaked = ::socket(AF_UNIX, SOCK_STREAM, 0);  // not close-on-exec, as passed sockets
    application.launchGUIApplication();
    ::close(leaked);
    EXPECT_EQ(reportLines("launched"),
              (std::vector<std::string>{std::to_string(nobody.userId), std::to_string(nobody.groupId), groups, "0 1 2 ",
                                        "/dev/null", fs::is_directory(nobody.home) ? nobody.home : "/",
                                        ":5 /run/user/" + std::to_string(nobody.userId), settings.applicationPath}));
}

// With a service manager (its bus socket in the user's runtime directory) the launch is a
// request to it, made as the user: a transient application unit in the user's app.slice that
// lives as long as the application, with the session's display.
TEST_F(QBKelvoGUIApplicationLaunchTest, WithAServiceManagerTheLaunchIsATransientUnitOfTheUser) {
    const auto runtimeDirectory = nobody.runtimeDirectory(settings.serviceManager.runtimeDirectoryRoot);
    writeFile(runtimeDirectory + "/bus", "");  // where the manager's bus socket would be
    settings.serviceManager.runCommand = probe("request");
    QBKelvoGUIApplication application(server, settings);
    application.launchGUIApplication();
    const auto lines = reportLines("request");
    ASSERT_EQ(lines.size(), 8u) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[0], std::to_string(nobody.userId));
    EXPECT_EQ(lines[2], groups);
    EXPECT_EQ(lines[3], "0 1 2 ");
    EXPECT_TRUE(lines[4].starts_with("pipe:")) << lines[4];
    EXPECT_NE(lines[4], fs::read_symlink("/proc/self/fd/1").string()) << "the request's output is never the service's";
    EXPECT_EQ(lines[6], ":5 " + runtimeDirectory);
    const std::regex request(
        "--quiet --collect --unit=app-bash-com\\.kelvo\\.KelvoTunnelwright@[0-9a-f]{16}\\.service "
        "--slice=app\\.slice --property=ExitType=cgroup --setenv=DISPLAY=:5 -- /bin/bash -c .* sh " + settings.applicationPath);
    EXPECT_TRUE(std::regex_match(lines[7], request)) << lines[7];
    EXPECT_FALSE(fs::exists(report("launched"))) << "the manager starts it, not we";
}

// Only an entry that nobody but root can change counts as installed; one that some user could
// have written or swapped, or that is no regular file, is as good as missing, and never blocks.
TEST_F(QBKelvoGUIApplicationLaunchTest, OnlyEntriesThatOnlyRootCanChangeCount) {
    QBKelvoGUIApplication application(server, settings);
    const auto& entry = settings.applicationPath;
    const char* const folder = directory.path().c_str();
    ASSERT_EQ(application.getGUIApplicationPath(), entry);
    const std::pair<const char*, std::function<void()>> unsafe[] = {
        {"owned by a user", [&] { ASSERT_EQ(::chown(entry.c_str(), nobody.userId, 0), 0); }},
        {"group-writable", [&] { ::chmod(entry.c_str(), 0664); }},
        {"writable by others", [&] { ::chmod(entry.c_str(), 0646); }},
        {"in a folder others may write", [&] { ::chmod(folder, 0777); }},
        {"a symbolic link", [&] { fs::remove(entry), fs::create_symlink(directory.file("real.desktop"), entry); }},
        {"a FIFO", [&] { fs::remove(entry); ASSERT_EQ(::mkfifo(entry.c_str(), 0644), 0); }}};
    writeFile(directory.file("real.desktop"), "[Desktop Entry]\n");
    const auto reset = [&] {
        fs::remove(entry);
        writeFile(entry, "[Desktop Entry]\n");
        ::chmod(entry.c_str(), 0644), ::chmod(folder, 0711);
    };
    for (const auto& [name, makeUnsafe] : unsafe) {
        reset();
        makeUnsafe();
        EXPECT_EQ(application.getGUIApplicationPath(), std::nullopt) << name;
        EXPECT_EQ(application.installedVersion(), std::nullopt) << name;
    }
    reset();
    EXPECT_EQ(application.getGUIApplicationPath(), entry) << "a root-owned sticky /tmp is safe";
}
