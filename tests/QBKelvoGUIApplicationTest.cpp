// Finding, starting and waiting for the GUI application: the install lookup, the console user,
// the real launch as that user, and the wait for its client.

#include "QBKelvoGUIApplication.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

#include "platform/QBDesktopEntry.h"
#include "support/ChannelFixture.h"
#include "support/Eventually.h"

using namespace std::chrono_literals;

namespace {

void writeFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

class QBKelvoGUIApplicationTest : public ChannelFixture {
protected:
    void SetUp() override { ASSERT_TRUE(startServer()); }

    QBKelvoGUIApplication::Settings countingSettings(std::chrono::milliseconds interval) {
        QBKelvoGUIApplication::Settings settings;
        settings.applicationPath = directory.file("fixed/app.desktop");
        settings.dataDirectories = {directory.file("local"), directory.file("share")};
        settings.consoleUser = [this]() -> std::optional<QBConsoleUser> {
            ++launchAttempts;
            return std::nullopt;
        };
        settings.checkInterval = interval;
        return settings;
    }

    std::atomic<int> launchAttempts{0};
};

TEST_F(QBKelvoGUIApplicationTest, FindsTheApplicationAtItsPlaceThenByIdentifier) {
    const auto settings = countingSettings(1ms);
    QBKelvoGUIApplication application(server, settings);
    const std::string byId = directory.file("share/applications/com.kelvo.KelvoTunnelwright.desktop");
    const std::string entry = "[Desktop Entry]\nX-Kelvo-ShortVersion = 1.2.3\nX-Kelvo-BuildVersion=45\n";

    EXPECT_EQ(application.getGUIApplicationPath(), std::nullopt);
    std::filesystem::create_directories(settings.applicationPath);  // a folder is no entry
    writeFile(byId, entry);
    EXPECT_EQ(application.getGUIApplicationPath(), byId);
    EXPECT_EQ(application.installedVersion(), "1.2.3,45");

    // An earlier data directory hides later ones, also by marking its entry deleted.
    writeFile(directory.file("local/applications/com.kelvo.KelvoTunnelwright.desktop"),
              "[Desktop Entry]\nHidden=true\n");
    EXPECT_EQ(application.getGUIApplicationPath(), std::nullopt);

    std::filesystem::remove(settings.applicationPath);
    writeFile(settings.applicationPath, "[Desktop Entry]\nX-Kelvo-ShortVersion=9\n[Other]\nX-Kelvo-BuildVersion=1\n");
    EXPECT_EQ(application.getGUIApplicationPath(), settings.applicationPath);
    EXPECT_EQ(application.installedVersion(), std::nullopt) << "a key outside the entry's group";
    EXPECT_EQ(QBDesktopEntry::parse("Name=x\n"), std::nullopt) << "no entry group";
}

TEST_F(QBKelvoGUIApplicationTest, ConcurrentWaitersShareOneLaunchAndTakeAClientThatConnects) {
    QBKelvoGUIApplication application(server, countingSettings(2s * sanitizerSlowdown));
    EXPECT_FALSE(application.isGUIApplicationAvailableAndStartIfNeeded(false));
    EXPECT_EQ(launchAttempts, 0);

    std::vector<std::future<bool>> waiters;
    for (int i = 0; i < 20; ++i) {
        waiters.push_back(std::async(std::launch::async, [&] {
            return application.isGUIApplicationAvailableAndStartIfNeeded(true);
        }));
    }
    ASSERT_TRUE(eventually([&] { return launchAttempts > 0; }));
    connectClient();
    // Woken by the connection, long before the next check would have come.
    for (auto& waiter : waiters) {
        ASSERT_EQ(waiter.wait_for(1s * sanitizerSlowdown), std::future_status::ready);
        EXPECT_TRUE(waiter.get());
    }
    EXPECT_EQ(launchAttempts, 1);
    EXPECT_TRUE(application.isGUIApplicationAvailableAndStartIfNeeded(false));
}

TEST_F(QBKelvoGUIApplicationTest, AWaitEndsWithFalseAtItsBoundOrWhenTheChannelShutsDown) {
    QBKelvoGUIApplication quick(server, countingSettings(10ms));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(quick.isGUIApplicationAvailableAndStartIfNeeded(true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);

    QBKelvoGUIApplication slow(server, countingSettings(10s));
    auto waiter = std::async(std::launch::async, [&] {
        return slow.isGUIApplicationAvailableAndStartIfNeeded(true);
    });
    ASSERT_TRUE(eventually([&] { return launchAttempts == 2; }));
    server->shutdown();
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(waiter.get());
    EXPECT_FALSE(slow.isGUIApplicationAvailableAndStartIfNeeded(true));
    EXPECT_EQ(launchAttempts, 2) << "no launch once the channel has shut down";
}

// The launcher runs as the console user, in that user's session environment, with the
// application's path as its last argument; root and the logged-out name are never used.
TEST_F(QBKelvoGUIApplicationTest, LaunchesAsTheConsoleUserAndNeverAsRoot) {
    if (::geteuid() != 0) GTEST_SKIP() << "SKIP: taking another user's ids needs root";
    auto nobody = QBConsoleUser::fromPasswordDatabase("nobody");
    ASSERT_TRUE(nobody) << "no user 'nobody' in the password database";
    nobody->display = ":5";
    ::chmod(directory.path().c_str(), 0777);  // the launched program writes here as nobody
    const std::string report = directory.file("launched");

    QBKelvoGUIApplication::Settings settings;
    settings.applicationPath = directory.file("app.desktop");
    writeFile(settings.applicationPath, "[Desktop Entry]\n");
    settings.launcher = {"/bin/sh", "-c",
                         "echo \"$(id -u) $(id -g) $USER $HOME $DISPLAY $XDG_RUNTIME_DIR $1\" >> " +
                             report,
                         "sh"};
    auto user = *nobody;
    settings.consoleUser = [&user] { return std::optional(user); };
    QBKelvoGUIApplication application(server, settings);

    for (const auto& [uid, gid, name] : {std::tuple{0u, nobody->groupId, nobody->name},
                                         std::tuple{nobody->userId, 0u, nobody->name},
                                         std::tuple{nobody->userId, nobody->groupId,
                                                    std::string(QBKelvoGUIApplication::loggedOutUserName)}}) {
        user.userId = uid, user.groupId = gid, user.name = name;
        application.launchGUIApplication();
    }
    user = *nobody;
    application.launchGUIApplication();
    ASSERT_TRUE(eventually([&] { return readFile(report).ends_with('\n'); }));
    std::this_thread::sleep_for(200ms);  // time for a launch that should not have run
    std::ostringstream expected;
    expected << nobody->userId << ' ' << nobody->groupId << ' ' << nobody->name << ' '
             << nobody->home << " :5 /run/user/" << nobody->userId << ' '
             << settings.applicationPath << '\n';
    EXPECT_EQ(readFile(report), expected.str()) << "only the last launch may run";
}
