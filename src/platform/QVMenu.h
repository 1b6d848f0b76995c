// A small menu model standing in for the status-bar menu: items with a title, an action sent to a
// target with the item as sender, a represented object, a hidden flag, an indentation level and an
// optional submenu. The host draws it however it can. Main thread.
// An item may carry an identifier that names what it does whatever language its title is in: the
// command line and the tray choose entries by it, never by the (translated) title.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

class QVMenu;

class QVMenuItem {
 public:
  using Action = std::function<void(QVMenuItem& sender)>;

  static std::shared_ptr<QVMenuItem> separatorItem();
  explicit QVMenuItem(std::string title = "", Action action = nullptr, std::string keyEquivalent = "");

  const std::string& title() const { return m_title; }
  void setTitle(const std::string& title) { m_title = title; }
  bool hasAction() const { return static_cast<bool>(m_action); }
  void setAction(Action action) { m_action = std::move(action); }
  const std::string& identifier() const { return m_identifier; }  // "" for none
  void setIdentifier(const std::string& identifier) { m_identifier = identifier; }
  const std::string& representedObject() const { return m_representedObject; }  // "" for none
  void setRepresentedObject(const std::string& object) { m_representedObject = object; }
  bool isHidden() const { return m_hidden; }
  void setHidden(bool hidden) { m_hidden = hidden; }
  int indentationLevel() const { return m_indentationLevel; }
  void setIndentationLevel(int level) { m_indentationLevel = level; }
  const std::string& keyEquivalent() const { return m_keyEquivalent; }
  bool isSeparatorItem() const { return m_separator; }
  const std::shared_ptr<QVMenu>& submenu() const { return m_submenu; }
  void setSubmenu(std::shared_ptr<QVMenu> submenu) { m_submenu = std::move(submenu); }

  // Sends the action, as a click on the item does. Nothing for an item without one.
  void performAction();

 private:
  std::string m_title;
  Action m_action;
  std::string m_keyEquivalent;
  std::string m_identifier;
  std::string m_representedObject;
  bool m_hidden = false;
  bool m_separator = false;
  int m_indentationLevel = 0;
  std::shared_ptr<QVMenu> m_submenu;
};

class QVMenu {
 public:
  void addItem(std::shared_ptr<QVMenuItem> item) { m_items.push_back(std::move(item)); }
  const std::vector<std::shared_ptr<QVMenuItem>>& itemArray() const { return m_items; }
  QVMenuItem& itemAtIndex(std::size_t index) { return *m_items.at(index); }
  std::size_t numberOfItems() const { return m_items.size(); }

 private:
  std::vector<std::shared_ptr<QVMenuItem>> m_items;
};
