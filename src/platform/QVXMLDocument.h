// QVXMLDocument is a parsed XML document, read-only, for the replies of servers. Parsing never touches
// the network or the file system: external entities and DTDs are not loaded, and entities are not
// expanded. QVXMLElement is a view of one element, valid while its document lives. Plain values; any
// thread, one document per thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

class QVXMLElement {
 public:
  // The child elements whose name matches qualifiedName, in document order. A name "P:local" matches an
  // element with the local name "local" in the namespace that the prefix P is bound to where the element
  // stands; where P is bound to nothing there, only an element written exactly "P:local" matches. A name
  // without a prefix matches an element written exactly so.
  std::vector<QVXMLElement> elementsForName(const std::string& qualifiedName) const;
  // The text of the element and all its descendants.
  std::string stringValue() const;
  // Reading by namespace, whatever prefix a document chose: the element's local name, the namespace URI it
  // stands in ("" for none), and its child elements in document order.
  std::string localName() const;
  std::string namespaceURI() const;
  std::vector<QVXMLElement> childElements() const;

 private:
  friend class QVXMLDocument;
  explicit QVXMLElement(void* node) : m_node(node) {}
  void* m_node;  // an xmlNode of the owning document
};

class QVXMLDocument {
 public:
  // nullptr when data is not a well-formed document.
  static std::unique_ptr<QVXMLDocument> documentWithData(const std::string& data);
  ~QVXMLDocument();
  QVXMLDocument(const QVXMLDocument&) = delete;
  QVXMLDocument& operator=(const QVXMLDocument&) = delete;

  QVXMLElement rootElement() const;

 private:
  explicit QVXMLDocument(void* document) : m_document(document) {}
  void* m_document;  // the xmlDoc
};
