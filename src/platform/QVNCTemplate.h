// QVNCTemplate collects the messages of several groups into one notification. Its owner sets a
// single-message template (its %@ filled with the one item's text), optionally a multi-message template
// (its %@ filled with all items' texts, joined by ", "), the number of items it shows at once, and a
// shortening function for more items than that. pushItem adds an item and shows the notification
// anew through show(), which the host's subclass implements. A click on a button reaches the delegate
// with the button's index (1 for the first button).
// Main thread. The owner clears the delegate before it lets the template go.
#pragma once

#include <string>
#include <vector>

#include "platform/QVHostApplication.h"

class QVNCTemplate;

inline constexpr const char* kQVNCTemplateSubitemNameKey = "kQVNCTemplateSubitemNameKey";
inline constexpr const char* kQVNCTemplateSubitemUserInfoKey = "kQVNCTemplateSubitemUserInfoKey";

struct QVNCTemplateItem {
  std::string name;      // kQVNCTemplateSubitemNameKey: the text shown for the item
  std::string userInfo;  // kQVNCTemplateSubitemUserInfoKey: "" when the item has none
};

class QVNCTemplateDelegate {
 public:
  virtual ~QVNCTemplateDelegate() = default;
  virtual void ncTemplate(QVNCTemplate& nctemplate, long didReceiveButtonClickWithIndex) = 0;
};

// The text of a notification for more items than the template shows: context, the first item's text,
// the number of the other items.
using QVShortedMultiMessageFunction = std::string (*)(const void* context, const std::string& firstItem,
                                                      long otherItems);

class QVNCTemplate {
 public:
  virtual ~QVNCTemplate() = default;

  void setDelegate(QVNCTemplateDelegate* delegate) { m_delegate = delegate; }  // not owned
  QVNCTemplateDelegate* delegate() const { return m_delegate; }
  void setMaxNumberOfVisibleItems(long count) { m_maxNumberOfVisibleItems = count; }
  long maxNumberOfVisibleItems() const { return m_maxNumberOfVisibleItems; }
  void setSingleMessageTemplate(const std::string& text) { m_singleMessageTemplate = text; }
  const std::string& singleMessageTemplate() const { return m_singleMessageTemplate; }
  void setMultiMessageTemplate(const std::string& text) { m_multiMessageTemplate = text; }
  const std::string& multiMessageTemplate() const { return m_multiMessageTemplate; }
  void setShortedMultiMessageStringCreationFunction(QVShortedMultiMessageFunction function) {
    m_shortedFunction = function;
  }
  QVShortedMultiMessageFunction shortedMultiMessageStringCreationFunction() const { return m_shortedFunction; }

  // The notification whose buttons, target, icon and live time the owner sets.
  QVNotification& notification() { return m_notification; }

  const std::vector<QVNCTemplateItem>& items() const { return m_items; }
  void pushItem(const QVNCTemplateItem& item);
  // Forgets the pending items (when the notification was dismissed or has timed out).
  void clearItems() { m_items.clear(); }

  // The text for the pending items: none -> "", one -> the single template; several and no more than
  // the template shows -> the multi template (or the single one with the first text when there is no
  // multi template); more than it shows -> the shortening function with the first text and the count
  // of the others.
  std::string composedText() const;

  // The host's subclass calls this when the user clicks a button (1: the first button).
  void buttonClicked(long index);

 protected:
  // Shows (or updates) the notification with composedText(). The host's subclass implements it.
  virtual void show() {}

 private:
  QVNCTemplateDelegate* m_delegate = nullptr;
  long m_maxNumberOfVisibleItems = 1;
  std::string m_singleMessageTemplate;
  std::string m_multiMessageTemplate;
  QVShortedMultiMessageFunction m_shortedFunction = nullptr;
  QVNotification m_notification;
  std::vector<QVNCTemplateItem> m_items;
};
