#include "targets/QVDAVBackupTarget.h"

#include <gtest/gtest.h>

#include "platform/QVKeychain.h"
#include "support/QVAgentTestSupport.h"

using Names = std::optional<std::vector<std::string>>;

// A reply as Apache httpd (mod_dav) or nginx (dav-ext) gave it for a group folder holding two versions and
// a file, shortened to what the listing reads; the fuzzer starts from the same replies.
std::string capturedReply(const std::string& server) {
  return qvtest::readFile(std::string(QV_TEST_SOURCE_DIR) + "/tests/reliability/corpus/propfind/" + server + ".xml");
}

// A multistatus of the collection itself followed by one response per (href, resourcetype) pair, with its
// elements written as open and close give them.
std::string reply(const std::string& open, const std::vector<std::pair<std::string, std::string>>& responses,
                  const std::string& prefix = "D:") {
  std::string text = open;
  auto response = [&](const std::string& href, const std::string& type) {
    return "<" + prefix + "response><" + prefix + "href>" + href + "</" + prefix + "href><" + prefix + "propstat><" +
           prefix + "prop><" + prefix + "resourcetype>" + type + "</" + prefix + "resourcetype></" + prefix +
           "prop></" + prefix + "propstat></" + prefix + "response>";
  };
  text += response("/g/", "<" + prefix + "collection/>");
  for (const auto& [href, type] : responses) text += response(href, type);
  return text + "</" + prefix + "multistatus>";
}

class QVDAVBackupTargetTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;
  qvtest::LogCapture m_log;
};

TEST_F(QVDAVBackupTargetTest, PassesOnly2xxAndAnExistingCollectionWhereAllowed) {
  QVTarget options = qvtest::targetRecord("D1", "NAS", "dav", "backups/My Mac");
  options.server = "nas.local";
  options.port = 8080;
  QVKeychain::sharedProxy().storeItem(QVBackupTarget(options).keychainServiceName(), "ann", "pw", "");
  QVDAVBackupTarget target(options);
  for (std::int64_t status : {200, 201, 204, 207, 299}) EXPECT_TRUE(target.validateResponseStatusCode(status, false));
  EXPECT_TRUE(target.validateResponseStatusCode(405, true));
  EXPECT_EQ(target.errorString(), "") << "a pass leaves no text";
  const std::vector<std::tuple<std::int64_t, bool, std::string>> failures = {
      {405, false, "The remote server returned an error - (405) Method Not Allowed"},
      {401, true, "The remote server returned an error - (401) Unauthorized"},
      {409, true, "The remote server returned an error - (409) Conflict"},
      {507, false, "The remote server returned an error - (507) Insufficient Storage"},
      {199, false, "The remote server returned an error - (199) "},
      {300, false, "The remote server returned an error - (300) Multiple Choices"},
      {0, true, "Could not connect to server http://ann:pw@nas.local:8080/backups/My%20Mac"},
  };
  for (const auto& [status, duplicates, text] : failures) {
    EXPECT_FALSE(target.validateResponseStatusCode(status, duplicates)) << status;
    EXPECT_EQ(target.errorString(), text);
  }
}

TEST_F(QVDAVBackupTargetTest, ListsTheCollectionsOfARepliesOwnDAVPrefix) {
  const Names both = std::vector<std::string>{"Grüße #1.backup", "20240101120000.backup"};
  EXPECT_EQ(QVDAVBackupTarget::collectionNamesInReply(capturedReply("apache")), both) << "lp1 bound to DAV: as D is";
  EXPECT_EQ(QVDAVBackupTarget::collectionNamesInReply(capturedReply("nginx")), both);

  const std::string dav = "<D:multistatus xmlns:D=\"DAV:\">";
  const std::vector<std::pair<std::string, Names>> cases = {
      // Another prefix, or the default namespace, lists nothing.
      {reply("<d:multistatus xmlns:d=\"DAV:\">", {{"/g/v/", "<d:collection/>"}}, "d:"), std::nullopt},
      {reply("<multistatus xmlns=\"DAV:\">", {{"/g/v/", "<collection/>"}}, ""), std::nullopt},
      // Elements of another namespace where D stands for DAV: do not match; where D is bound nowhere, the
      // exact names still do.
      {reply("<x:multistatus xmlns:D=\"DAV:\" xmlns:x=\"urn:other\">", {{"/g/v/", "<x:collection/>"}}, "x:"),
       std::nullopt},
      {reply("<D:multistatus>", {{"/g/v/", "<D:collection/>"}}), std::vector<std::string>{"v"}},
      // Only the collection itself, a file only, a name that does not decode, a full URL as href.
      {reply(dav, {}), std::nullopt},
      {reply(dav, {{"/g/f.txt", ""}}), std::nullopt},
      {reply(dav,
             {{"/g/bad%zz/", "<D:collection/>"}, {"/g/%ff%fe/", "<D:collection/>"}, {"/g/ok/", "<D:collection/>"}}),
       std::vector<std::string>{"ok"}},
      {reply(dav, {{"http://nas.local:8080/g/v%20w/", "<D:collection/>"}}), std::vector<std::string>{"v w"}},
      {"", std::nullopt},
      {"<html><body>401 Unauthorized</body>", std::nullopt},
      {"not xml at all", std::nullopt},
  };
  for (const auto& [text, names] : cases) EXPECT_EQ(QVDAVBackupTarget::collectionNamesInReply(text), names) << text;
}
