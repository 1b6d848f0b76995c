#include "targets/QVDAVMultistatus.h"

#include <cstdlib>

#include "platform/QVFoundation.h"
#include "platform/QVXMLDocument.h"

namespace {

constexpr const char* kDAVNamespace = "DAV:";

bool isDAV(const QVXMLElement& element, const char* localName) {
  return element.namespaceURI() == kDAVNamespace && element.localName() == localName;
}

std::vector<QVXMLElement> davChildren(const QVXMLElement& element, const char* localName) {
  std::vector<QVXMLElement> found;
  for (const QVXMLElement& child : element.childElements())
    if (isDAV(child, localName)) found.push_back(child);
  return found;
}

// A propstat whose status is not 2xx describes properties that the resource does not have.
bool propstatSucceeded(const QVXMLElement& propstat) {
  std::vector<QVXMLElement> status = davChildren(propstat, "status");
  if (status.empty()) return true;
  const std::string text = status.front().stringValue();  // "HTTP/1.1 200 OK"
  const std::size_t space = text.find(' ');
  return space != std::string::npos && text.compare(space + 1, 1, "2") == 0;
}

}  // namespace

namespace {

// The path of a URL or href as written: without white space around it, scheme, host and query.
std::string writtenPath(const std::string& href) {
  const auto first = href.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  std::string path = href.substr(first, href.find_last_not_of(" \t\r\n") - first + 1);
  if (const std::size_t scheme = path.find("://"); scheme != std::string::npos && path.find('/') > scheme) {
    const std::size_t slash = path.find('/', scheme + 3);
    path.erase(0, slash == std::string::npos ? path.size() : slash);
  }
  if (const std::size_t query = path.find_first_of("?#"); query != std::string::npos) path.resize(query);
  return path;
}

}  // namespace

std::string QVDAVMultistatus::pathOfHref(const std::string& href) {
  const std::string path = writtenPath(href);
  // An href written without escapes may hold a "%" of its own: it stands as it is.
  std::string result = qv::stringByReplacingPercentEscapes(path).value_or(path);
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  if (result.empty()) result.push_back('/');
  return result;
}

std::optional<std::vector<QVVersionEntry>> QVDAVMultistatus::membersInReply(const std::string& reply,
                                                                            const std::string& requestURL) {
  auto document = QVXMLDocument::documentWithData(reply);
  if (!document || !isDAV(document->rootElement(), "multistatus")) return std::nullopt;
  const std::string requested = pathOfHref(requestURL);
  std::vector<QVVersionEntry> members;
  for (const QVXMLElement& response : davChildren(document->rootElement(), "response")) {
    std::vector<QVXMLElement> hrefs = davChildren(response, "href");
    if (hrefs.empty()) continue;
    const std::string path = pathOfHref(hrefs.front().stringValue());
    if (path == requested || path == "/") continue;
    QVVersionEntry entry;
    // The name is the last piece of the path as written, unescaped after it was cut: an escaped "/" in
    // it stays part of the name (and whoever uses the name judges it).
    const std::string written = qv::lastPathComponent(writtenPath(hrefs.front().stringValue()));
    entry.name = qv::stringByReplacingPercentEscapes(written).value_or(written);
    if (entry.name.empty()) continue;
    for (const QVXMLElement& propstat : davChildren(response, "propstat")) {
      if (!propstatSucceeded(propstat)) continue;
      for (const QVXMLElement& prop : davChildren(propstat, "prop")) {
        for (const QVXMLElement& type : davChildren(prop, "resourcetype"))
          entry.isDirectory = entry.isDirectory || !davChildren(type, "collection").empty();
        for (const QVXMLElement& length : davChildren(prop, "getcontentlength"))
          entry.size = std::strtoull(length.stringValue().c_str(), nullptr, 10);
      }
    }
    members.push_back(std::move(entry));
  }
  return members;
}

std::optional<std::vector<std::string>> QVDAVMultistatus::collectionNamesInReply(const std::string& reply,
                                                                                 const std::string& requestURL) {
  auto members = membersInReply(reply, requestURL);
  if (!members) return std::nullopt;
  std::vector<std::string> names;
  for (const QVVersionEntry& member : *members)
    if (member.isDirectory) names.push_back(member.name);
  return names;
}

bool QVDAVMultistatus::isReadableOnlyByNamespace(const std::string& reply) {
  auto document = QVXMLDocument::documentWithData(reply);
  if (!document || !isDAV(document->rootElement(), "multistatus")) return false;
  return !davChildren(document->rootElement(), "response").empty() &&
         document->rootElement().elementsForName("D:response").empty();
}
