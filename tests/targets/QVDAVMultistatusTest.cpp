#include "targets/QVDAVMultistatus.h"

#include <gtest/gtest.h>

#include "support/QVTestSupport.h"

using Names = std::optional<std::vector<std::string>>;

namespace {

std::string capturedReply(const std::string& server) {
  return qvtest::readFile(std::string(QV_TEST_SOURCE_DIR) + "/tests/reliability/corpus/propfind/" + server + ".xml");
}

// One response: href, and a collection or a file of the given length, under prefix p.
std::string member(const std::string& p, const std::string& href, bool collection, const std::string& extra = "") {
  return "<" + p + "response><" + p + "href>" + href + "</" + p + "href><" + p + "propstat><" + p + "prop><" + p +
         "resourcetype>" + (collection ? "<" + p + "collection/>" : "") + "</" + p + "resourcetype>" + extra + "</" +
         p + "prop><" + p + "status>HTTP/1.1 200 OK</" + p + "status></" + p + "propstat></" + p + "response>";
}

}  // namespace

TEST(QVDAVMultistatusTest, ReadsEveryServersListingByNamespace) {
  const Names both = std::vector<std::string>{"Grüße #1.backup", "20240101120000.backup"};
  EXPECT_EQ(QVDAVMultistatus::collectionNamesInReply(capturedReply("apache"), "/Photos/"), both);
  EXPECT_EQ(QVDAVMultistatus::collectionNamesInReply(capturedReply("nginx"), "/Photos/"), both);

  const std::string base = "http://127.0.0.1:8080/remote.php/dav/files/ann/My%20Group/";
  const std::string self = "/remote.php/dav/files/ann/My%20Group/";
  const std::vector<std::tuple<std::string, std::string, Names>> cases = {
      {"SabreDAV's d:, the folder itself first",
       "<d:multistatus xmlns:d=\"DAV:\" xmlns:s=\"http://sabredav.org/ns\">" + member("d:", self, true) +
           member("d:", self + "20240101120000.backup/", true) + member("d:", self + "notes.txt", false) +
           "</d:multistatus>",
       std::vector<std::string>{"20240101120000.backup"}},
      {"a default namespace, the folder itself last and unescaped, full URLs",
       "<multistatus xmlns=\"DAV:\">" + member("", "http://127.0.0.1:8080" + self + "a%20b/", true) +
           member("", "/remote.php/dav/files/ann/My Group/", true) + "</multistatus>",
       std::vector<std::string>{"a b"}},
      {"no folder itself, Apache's lp1 on properties, an href with a raw %",
       "<D:multistatus xmlns:D=\"DAV:\"><D:response xmlns:lp1=\"DAV:\"><D:href>" + self +
           "v/</D:href><D:propstat><D:prop><lp1:resourcetype><D:collection/></lp1:resourcetype></D:prop>"
           "</D:propstat></D:response>" +
           member("D:", self + "100%/", true) + "</D:multistatus>",
       std::vector<std::string>{"v", "100%"}},
      {"a property that the server reports missing (404 propstat) is not a collection",
       "<d:multistatus xmlns:d=\"DAV:\"><d:response><d:href>" + self +
           "x/</d:href><d:propstat><d:prop><d:resourcetype><d:collection/></d:resourcetype></d:prop>"
           "<d:status>HTTP/1.1 404 Not Found</d:status></d:propstat></d:response></d:multistatus>",
       std::vector<std::string>{}},
      {"another namespace", "<x:multistatus xmlns:x=\"urn:x\">" + member("x:", self + "v/", true) + "</x:multistatus>",
       std::nullopt},
      {"an error page", "<html><body>500</body></html>", std::nullopt},
      {"no XML", "", std::nullopt},
  };
  for (const auto& [what, text, names] : cases)
    EXPECT_EQ(QVDAVMultistatus::collectionNamesInReply(text, base), names) << what;

  auto members = QVDAVMultistatus::membersInReply(
      "<d:multistatus xmlns:d=\"DAV:\">" +
          member("d:", self + "f", false, "<d:getcontentlength>42</d:getcontentlength>") + "</d:multistatus>",
      base);
  ASSERT_TRUE(members && members->size() == 1);
  EXPECT_EQ(members->front().size, 42u);
}

TEST(QVDAVMultistatusTest, TellsAListingThatOnlyANamespaceReadingSees) {
  EXPECT_TRUE(QVDAVMultistatus::isReadableOnlyByNamespace("<d:multistatus xmlns:d=\"DAV:\">" +
                                                          member("d:", "/a/", true) + "</d:multistatus>"));
  EXPECT_TRUE(QVDAVMultistatus::isReadableOnlyByNamespace("<multistatus xmlns=\"DAV:\">" + member("", "/a/", true) +
                                                          "</multistatus>"));
  EXPECT_FALSE(QVDAVMultistatus::isReadableOnlyByNamespace(capturedReply("apache")));
  EXPECT_FALSE(QVDAVMultistatus::isReadableOnlyByNamespace(capturedReply("nginx")));
  EXPECT_FALSE(QVDAVMultistatus::isReadableOnlyByNamespace("<d:error xmlns:d=\"DAV:\"/>")) << "a 401 page of SabreDAV";
}
