#include "platform/QVNCTemplate.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/QVLocalization.h"

namespace {

class RecordingTemplate : public QVNCTemplate {
 public:
  std::vector<std::string> shown;

 protected:
  void show() override { shown.push_back(composedText()); }
};

class RecordingDelegate : public QVNCTemplateDelegate {
 public:
  std::vector<long> clicks;
  QVNCTemplate* from = nullptr;
  void ncTemplate(QVNCTemplate& nctemplate, long index) override {
    from = &nctemplate;
    clicks.push_back(index);
  }
};

std::string shortened(const void* /*context*/, const std::string& firstItem, long otherItems) {
  return qv::stringWithFormat("%1$@ and %2$d more", {firstItem, otherItems});
}

class QVNCTemplateTest : public ::testing::Test {
 protected:
  QVNCTemplateTest() {
    m_template.setSingleMessageTemplate("Backup for group failed: %@");
    m_template.setMultiMessageTemplate("Backup for groups failed: %@");
    m_template.setMaxNumberOfVisibleItems(3);
    m_template.setShortedMultiMessageStringCreationFunction(shortened);
  }
  void push(const std::string& name) { m_template.pushItem({name, "id-" + name}); }

  RecordingTemplate m_template;
};

TEST_F(QVNCTemplateTest, ComposesNothingForNoItemsAndTheSingleTemplateForOne) {
  EXPECT_EQ(m_template.composedText(), "");
  push("Photos - Disk full");
  EXPECT_EQ(m_template.shown, std::vector<std::string>{"Backup for group failed: Photos - Disk full"});
}

TEST_F(QVNCTemplateTest, JoinsUpToTheVisibleNumberIntoTheMultiTemplate) {
  push("A");
  push("");
  push("C");
  EXPECT_EQ(m_template.composedText(), "Backup for groups failed: A, , C");
  EXPECT_EQ(m_template.shown.size(), 3u);
}

TEST_F(QVNCTemplateTest, ShortensBeyondTheVisibleNumberWithTheFirstItemAndTheOthersCount) {
  for (const char* name : {"A", "B", "C", "D"}) push(name);
  EXPECT_EQ(m_template.composedText(), "A and 3 more");
  m_template.clearItems();
  push("E");
  EXPECT_EQ(m_template.composedText(), "Backup for group failed: E");
}

TEST_F(QVNCTemplateTest, UsesTheSingleTemplateForSeveralWhenThereIsNoMultiTemplate) {
  RecordingTemplate warning;
  warning.setSingleMessageTemplate("Backup for group %@ was successful with warning: Some items are missing.");
  warning.setMaxNumberOfVisibleItems(1);
  warning.pushItem({"Docs", "1"});
  EXPECT_EQ(warning.composedText(), "Backup for group Docs was successful with warning: Some items are missing.");
  warning.pushItem({"Music", "2"});
  // Beyond the one it shows and without a shortening function: the first item only.
  EXPECT_EQ(warning.composedText(), "Backup for group Docs was successful with warning: Some items are missing.");
  warning.setShortedMultiMessageStringCreationFunction(shortened);
  EXPECT_EQ(warning.composedText(), "Docs and 1 more");
}

TEST_F(QVNCTemplateTest, PassesTheClickedButtonsIndexToTheDelegate) {
  RecordingDelegate delegate;
  m_template.buttonClicked(1);  // no delegate yet: nothing happens
  m_template.setDelegate(&delegate);
  m_template.buttonClicked(1);
  m_template.buttonClicked(2);
  EXPECT_EQ(delegate.clicks, (std::vector<long>{1, 2}));
  EXPECT_EQ(delegate.from, &m_template);
  m_template.setDelegate(nullptr);
  m_template.buttonClicked(1);
  EXPECT_EQ(delegate.clicks.size(), 2u);
}

}  // namespace
