#include "platform/QVMenu.h"

std::shared_ptr<QVMenuItem> QVMenuItem::separatorItem() {
  auto item = std::make_shared<QVMenuItem>();
  item->m_separator = true;
  return item;
}

QVMenuItem::QVMenuItem(std::string title, Action action, std::string keyEquivalent)
    : m_title(std::move(title)), m_action(std::move(action)), m_keyEquivalent(std::move(keyEquivalent)) {}

void QVMenuItem::performAction() {
  // A copy: the action may replace itself (or the item's action) while it runs.
  if (!m_action) return;
  Action action = m_action;
  action(*this);
}
