// Faults made to happen for real, against a local folder, WebDAV (Apache) and FTP (pyftpdlib, reading
// slowly enough to be caught mid-upload), with the daemon carrying out every command: the source changing
// under a run, the destination or its server vanishing, the server killed while it prunes, cancels at
// every stage, two groups at once, a full volume. In each case earlier versions stay as they were, the
// outcome is the one the run defines, the preferences stay readable and the daemon goes on serving.
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "host/QVProgramRunner.h"
#include "support/QVFTPTestServer.h"
#include "support/QVTestServer.h"
#include "support/QVVersionChecks.h"

namespace fs = std::filesystem;
using nlohmann::json;
using namespace qvtest;
using std::chrono::seconds;

namespace {

constexpr std::uint64_t kBig = 512ull << 20;  // long enough to act while it is copied

class QVFaultTest : public HostTest, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (!haveProgram("/usr/sbin/apache2") || !haveProgram("/usr/bin/python3")) GTEST_SKIP() << "no test servers";
    m_root = addDestination("Dest", m_env.root() + "/local");
    m_daemon = std::make_unique<RunningProgram>(std::vector<std::string>{"daemon"});
    ASSERT_TRUE(
        m_daemon->waitFor([&] { return m_daemon->err.find("started with") != std::string::npos; }, seconds(20)));
  }
  void TearDown() override {
    if (!m_daemon) return;
    EXPECT_EQ(runProgram({"status"}).status, 0) << "the daemon went on serving";
    kill(m_daemon->pid, SIGTERM);
    EXPECT_EQ(m_daemon->finish(seconds(60)).status, 0) << m_daemon->err;
    EXPECT_FALSE(json::parse(readFile(m_env.preferencesPath()), nullptr, false).is_discarded());
  }

  // A destination of this test's kind, made the default; returns the folder on disk where groups land.
  std::string addDestination(const std::string& title, const std::string& localFolder) {
    std::vector<std::string> arguments = {"target", "add", "--title", title, "--default", "--type"};
    std::string root, input;
    if (GetParam() == "dav") {
      m_servers.push_back(std::make_unique<ApacheDAVServer>());
      root = static_cast<ApacheDAVServer&>(*m_servers.back()).root() + "/b";
      arguments.insert(arguments.end(), {"dav", "--server", "127.0.0.1", "--path", "b"});
    } else if (GetParam() == "webdav") {
      m_servers.push_back(std::make_unique<ApacheDAVServer>());
      root = static_cast<ApacheDAVServer&>(*m_servers.back()).root() + "/b";
      arguments.insert(arguments.end(),
                       {"webdav", "--url", "http://127.0.0.1:" + std::to_string(m_servers.back()->port()) + "/b"});
    } else if (GetParam() == "ftp") {
      m_servers.push_back(std::make_unique<PyftpdlibServer>("ann", "pw", 64 << 20));
      root = static_cast<PyftpdlibServer&>(*m_servers.back()).root() + "/b";
      arguments.insert(arguments.end(),
                       {"ftp", "--server", "127.0.0.1", "--path", "b", "--user", "ann", "--password-stdin"});
      input = "pw\n";
    } else {
      root = localFolder;
      arguments.insert(arguments.end(), {"local", "--path", root});
    }
    if (!m_servers.empty() && GetParam() != "local" && GetParam() != "webdav")
      arguments.insert(arguments.end(), {"--port", std::to_string(m_servers.back()->port())});
    fs::create_directories(root);
    const ProgramResult added = runProgram(arguments, input);
    EXPECT_EQ(added.status, 0) << added.err;
    return root;
  }
  // A group of a small file and the folder "big" (holding big.bin, small for the first backup), backed
  // up once; returns the listing of that first version.
  std::string groupWithAVersion(const std::string& title) {
    writeFile(m_env.home() + "/" + title + "/big/big.bin", "first");
    runJSON({"group", "add", title, makeFile(title + ".txt", "kept"), m_env.home() + "/" + title + "/big"});
    runJSON({"group", "set", title, "--versions", "2"});
    EXPECT_EQ(runProgram({"backup", title}).status, 0);
    fs::resize_file(m_env.home() + "/" + title + "/big/big.bin", kBig);
    return treeListing(versions(title).front());
  }
  // The version folders of a group on disk, oldest first.
  std::vector<std::string> versions(const std::string& title, const std::string& root = "") const {
    std::vector<std::string> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator((root.empty() ? m_root : root) + "/" + title, ec))
      if (entry.path().extension() == ".backup") found.push_back(entry.path().string());
    std::sort(found.begin(), found.end());
    return found;
  }
  // The files of more than 16 MiB at the destination (arrived, or arriving).
  std::set<std::string> bigFiles() const {
    std::set<std::string> found;
    std::error_code ec;
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(m_root).parent_path(), ec))
      if (entry.is_regular_file(ec) && entry.file_size(ec) > (16u << 20)) found.insert(entry.path().string());
    return found;
  }
  // Starts a backup in the daemon, waits until a new big.bin arrives, does act, and returns the backup's end.
  ProgramResult backupWhile(const std::string& title, const std::function<void()>& act) {
    const std::set<std::string> before = bigFiles();
    RunningProgram backup({"backup", title});
    // A new path, not a count: the server may still be dropping what an aborted upload left.
    EXPECT_TRUE(backup.waitFor(
        [&] {
          return std::ranges::any_of(bigFiles(), [&](const std::string& path) { return !before.contains(path); });
        },
        seconds(60)))
        << backup.err;
    act();
    return backup.finish();
  }
  json status(const std::string& title) {
    for (const auto& record : runJSON({"status", "--json"}))
      if (record["groupTitle"] == title) return record;
    return nullptr;
  }

  std::string m_root;
  std::vector<std::unique_ptr<TestServer>> m_servers;
  std::unique_ptr<RunningProgram> m_daemon;
};

TEST_P(QVFaultTest, TheSourceChangingUnderARunLeavesEveryVersionReadable) {
  const std::string first = groupWithAVersion("Docs");
  const std::string big = m_env.home() + "/Docs/big/big.bin";
  writeFile(m_env.home() + "/Docs/big/gone.txt", "gone");
  writeFile(m_env.home() + "/Docs/big/grows.txt", "grows");
  runJSON({"group", "set", "Docs", "--versions", "5"});
  // Truncated while it is read (with one file deleted and one grown beside it), then grown while it is read.
  for (const std::uintmax_t size : {std::uintmax_t{1} << 20, 2 * kBig + (1 << 20)}) {
    fs::resize_file(big, size < kBig ? kBig : 2 * kBig);
    const std::size_t before = versions("Docs").size();
    bool midway = false;  // the change came while the file was on its way
    const ProgramResult run = backupWhile("Docs", [&] {
      for (const auto& arriving : bigFiles()) {
        std::error_code ec;
        midway = midway || (fs::file_size(arriving, ec) < fs::file_size(big) && !ec);
      }
      fs::resize_file(big, size);
      if (size < kBig) {
        fs::remove(m_env.home() + "/Docs/big/gone.txt");
        writeFile(m_env.home() + "/Docs/big/grows.txt", std::string(1 << 20, 'g'));
      }
    });
    EXPECT_TRUE(run.status == 0 || run.status == 1) << run.err;
    EXPECT_EQ(treeListing(versions("Docs").front()), first);
    // Stored as it was when it ended, or not at all: never torn (FTP keeps what arrived, as its rule says).
    const std::string stored = versions("Docs").back() + "/big/big.bin";
    if (midway && GetParam() != "ftp" && versions("Docs").size() > before && fs::exists(stored)) {
      EXPECT_EQ(fs::file_size(stored), size);
    }
    if (midway && GetParam() == "local") {
      EXPECT_EQ(run.status, 0) << "copied again as it was after the change";
    }
  }
  fs::resize_file(big, 1 << 20);
  // Whatever the run made of it, the next one is whole.
  EXPECT_EQ(runProgram({"backup", "Docs"}).status, 0);
  EXPECT_EQ(readFile(versions("Docs").back() + "/big/grows.txt").size(), 1u << 20);
  EXPECT_EQ(fs::file_size(versions("Docs").back() + "/big/big.bin"), 1u << 20);
}

TEST_P(QVFaultTest, CancelBeforeTheFirstItemInsideAFileAndDuringPruningEndsWithMinus128) {
  groupWithAVersion("Docs");
  // A cancel may come too late for a fast local copy on a loaded machine: after the run has ended, or after
  // its last item, when the run goes on to complete as it defines. That run must then complete, and the next
  // one is cancelled instead. Every run leaves the version before it as it was.
  const auto cancelled = [&](const std::function<ProgramResult(int& cancel)>& run) {
    for (int tries = 0, ended = 0; tries < 4 && ended != 1; ++tries) {
      const std::string whole = versions("Docs").back(), wholeListing = treeListing(whole);
      int cancel = 1;
      const ProgramResult result = run(cancel);
      ended = result.status;
      EXPECT_TRUE(ended == 0 || (ended == 1 && cancel == 0)) << ended << " " << result.err;
      EXPECT_EQ(treeListing(whole), wholeListing);
    }
    EXPECT_EQ(status("Docs")["statusCode"], -128);
  };
  // Before the first item: asked again and again from the moment the run is started.
  cancelled([](int& cancel) {
    RunningProgram run({"backup", "Docs"});
    run.waitFor([&] { return cancel == 0 || (cancel = runProgram({"cancel", "Docs"}).status) == 0; }, seconds(60));
    return run.finish();
  });
  // Inside the large file, after a whole run.
  EXPECT_EQ(backupWhile("Docs", [] {}).status, 0) << "runs to its end when left alone";
  cancelled([&](int& cancel) { return backupWhile("Docs", [&] { cancel = runProgram({"cancel", "Docs"}).status; }); });
}

TEST_P(QVFaultTest, TheDestinationOrItsServerVanishingDuringARunIsToldAndTheNextRunWorksAgain) {
  const std::string first = groupWithAVersion("Docs");
  if (GetParam() != "local") {
    // The server killed inside the large file, the last item: the run completes, since an item was
    // written, and names the one that was not.
    const ProgramResult killed = backupWhile("Docs", [&] { m_servers.front()->stop(); });
    m_servers.front()->restart();
    EXPECT_EQ(killed.status, 0) << killed.err;
    EXPECT_NE((killed.out + killed.err).find("not backed up: " + m_env.home() + "/Docs/big ("), std::string::npos)
        << killed.out << killed.err;
    EXPECT_EQ(treeListing(versions("Docs").front()), first);
  }
  const ProgramResult run = backupWhile("Docs", [&] { fs::remove_all(m_root); });
  // A folder fails the item it was writing (named in the report); a server may take what still comes
  // and make the folders again for it. The run completes when an earlier item was written.
  EXPECT_TRUE(run.status == 0 || run.status == 1) << run.err;
  EXPECT_EQ(status("Docs")["lastOutcome"] == "complete", run.status == 0) << "the outcome recorded is the one told";
  fs::create_directories(m_root);
  fs::resize_file(m_env.home() + "/Docs/big/big.bin", 1024);
  EXPECT_EQ(runProgram({"backup", "Docs"}).status, 0);
  EXPECT_EQ(versions("Docs").size(), 1u);
}

TEST_P(QVFaultTest, TwoGroupsRunAtOnceToOneDestinationAndToAnother) {
  const std::string other = addDestination("Other", m_env.root() + "/other");
  const std::string tree = makeTree(m_env.home() + "/Tree");
  for (const std::string title : {"A", "B", "C"}) runJSON({"group", "add", title, tree});
  runJSON({"group", "set", "C", "--target", "Other"});
  runJSON({"group", "set", "A", "--target", "Dest"});
  runJSON({"group", "set", "B", "--target", "Dest"});
  const ProgramResult run = runProgram({"backup", "A", "B", "C"});
  EXPECT_EQ(run.status, 0) << run.err;
  for (const auto& [title, root] : {std::pair{"A", m_root}, {"B", m_root}, {"C", other}}) {
    ASSERT_EQ(versions(title, root).size(), 1u) << title;
    EXPECT_EQ(treeListing(versions(title, root)[0] + "/Tree"), treeListing(tree)) << title;
  }
}

TEST_P(QVFaultTest, AFullVolumeFailsTheRunAndKeepsTheVersionsBefore) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a small volume needs root";
  ASSERT_EQ(mount("tmpfs", m_root.c_str(), "tmpfs", 0, "size=8m"), 0) << std::strerror(errno);
  struct Unmount {
    std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{m_root};
  fs::permissions(m_root, fs::perms::all);
  writeFile(m_env.home() + "/Docs/big/big.bin", "first");
  runJSON({"group", "add", "Docs", m_env.home() + "/Docs/big"});
  ASSERT_EQ(runProgram({"backup", "Docs"}).status, 0);
  const std::string first = treeListing(versions("Docs").front());
  writeFile(m_env.home() + "/Docs/big/big.bin", std::string(16 << 20, 'x'));  // not sparse: it takes room
  const ProgramResult full = runProgram({"backup", "Docs"});
  EXPECT_EQ(full.status, 1) << full.out << full.err;
  EXPECT_EQ(treeListing(versions("Docs").front()), first);
  EXPECT_EQ(status("Docs")["lastOutcome"], "failed");
}

INSTANTIATE_TEST_SUITE_P(Destinations, QVFaultTest, ::testing::Values("local", "dav", "webdav", "ftp"),
                         [](const auto& info) { return info.param; });

// The server killed while it removes old versions: the version just made stays whole, and once the
// server is back the next run removes what is left over.
class QVPruneFaultTest : public QVFaultTest {};

TEST_P(QVPruneFaultTest, CancelledOrKilledWhilePruningTheNewestVersionStays) {
  writeFile(m_env.home() + "/Docs/a.txt", "newest");
  runJSON({"group", "add", "Docs", m_env.home() + "/Docs"});
  runJSON({"group", "set", "Docs", "--versions", "1"});
  // Old versions of many files, slow to remove one by one; the run is caught once it has begun on them.
  auto runWhilePruning = [&](const std::function<void()>& act) {
    for (int version = 0; version < 4; ++version)
      for (int file = 0; file < 400; ++file)
        writeFile(m_root + "/Docs/2020010100000" + std::to_string(version) + ".backup/Docs/f" + std::to_string(file),
                  "old");
    fs::permissions(m_root + "/Docs", fs::perms::all);
    RunningProgram run({"backup", "Docs"});
    auto old = [&] {
      const auto all = versions("Docs");
      return std::count_if(all.begin(), all.end(),
                           [](const std::string& v) { return v.find("/2020") != std::string::npos; });
    };
    EXPECT_TRUE(run.waitFor([&] { return old() < 4; }, seconds(60))) << run.err;
    act();
    const ProgramResult ended = run.finish();
    EXPECT_TRUE(ended.status == 0 || ended.status == 1) << ended.err;
    ASSERT_FALSE(versions("Docs").empty());
    EXPECT_EQ(readFile(versions("Docs").back() + "/Docs/a.txt"), "newest");
  };
  runWhilePruning([] { runProgram({"cancel", "Docs"}); });
  runWhilePruning([&] { m_servers.front()->stop(); });
  m_servers.front()->restart();
  EXPECT_EQ(runProgram({"backup", "Docs"}).status, 0);
  EXPECT_EQ(versions("Docs").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Servers, QVPruneFaultTest, ::testing::Values("dav", "webdav", "ftp"),
                         [](const auto& info) { return info.param; });

}  // namespace
