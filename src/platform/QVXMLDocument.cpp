#include "platform/QVXMLDocument.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <climits>
#include <mutex>

namespace {

// The element's name as it stands in the document: "prefix:local", or "local".
std::string writtenName(const xmlNode* node) {
  std::string name = reinterpret_cast<const char*>(node->name);
  if (node->ns && node->ns->prefix) return reinterpret_cast<const char*>(node->ns->prefix) + (":" + name);
  return name;
}

bool matches(xmlNode* node, const std::string& qualifiedName) {
  const std::size_t colon = qualifiedName.find(':');
  if (colon == std::string::npos) return writtenName(node) == qualifiedName;
  const std::string prefix = qualifiedName.substr(0, colon);
  const std::string local = qualifiedName.substr(colon + 1);
  const xmlNs* bound = xmlSearchNs(node->doc, node, reinterpret_cast<const xmlChar*>(prefix.c_str()));
  if (!bound || !bound->href) return writtenName(node) == qualifiedName;
  return node->ns && node->ns->href && xmlStrEqual(node->ns->href, bound->href) &&
         local == reinterpret_cast<const char*>(node->name);
}

}  // namespace

std::vector<QVXMLElement> QVXMLElement::elementsForName(const std::string& qualifiedName) const {
  std::vector<QVXMLElement> found;
  for (xmlNode* child = static_cast<xmlNode*>(m_node)->children; child; child = child->next)
    if (child->type == XML_ELEMENT_NODE && matches(child, qualifiedName)) found.push_back(QVXMLElement(child));
  return found;
}

std::string QVXMLElement::stringValue() const {
  xmlChar* content = xmlNodeGetContent(static_cast<xmlNode*>(m_node));
  std::string text = content ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return text;
}

std::string QVXMLElement::localName() const {
  return reinterpret_cast<const char*>(static_cast<xmlNode*>(m_node)->name);
}

std::string QVXMLElement::namespaceURI() const {
  const xmlNs* ns = static_cast<xmlNode*>(m_node)->ns;
  return ns && ns->href ? reinterpret_cast<const char*>(ns->href) : "";
}

std::vector<QVXMLElement> QVXMLElement::childElements() const {
  std::vector<QVXMLElement> found;
  for (xmlNode* child = static_cast<xmlNode*>(m_node)->children; child; child = child->next)
    if (child->type == XML_ELEMENT_NODE) found.push_back(QVXMLElement(child));
  return found;
}

std::unique_ptr<QVXMLDocument> QVXMLDocument::documentWithData(const std::string& data) {
  if (data.empty() || data.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
  static std::once_flag initialized;
  std::call_once(initialized, [] { xmlInitParser(); });
  // No network, no entity expansion, no DTD loading, nothing printed; libxml2's own depth and size limits
  // stay in force.
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  xmlDoc* document = xmlReadMemory(data.data(), static_cast<int>(data.size()), nullptr, nullptr, options);
  if (!document) return nullptr;
  if (!xmlDocGetRootElement(document)) {
    xmlFreeDoc(document);
    return nullptr;
  }
  return std::unique_ptr<QVXMLDocument>(new QVXMLDocument(document));
}

QVXMLDocument::~QVXMLDocument() { xmlFreeDoc(static_cast<xmlDoc*>(m_document)); }

QVXMLElement QVXMLDocument::rootElement() const {
  return QVXMLElement(xmlDocGetRootElement(static_cast<xmlDoc*>(m_document)));
}
