#include "platform/QVNCTemplate.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/QVLocalization.h"

namespace {

// A notification that records what it shows, and is its own delegate.
struct Recorder : QVNCTemplate, QVNCTemplateDelegate {
  std::vector<std::string> shown;
  std::vector<long> clicks;
  void show() override { shown.push_back(composedText()); }
  void ncTemplate(QVNCTemplate& from, long index) override { clicks.push_back(&from == this ? index : -1); }
};

TEST(QVNCTemplateTest, ShowsOneSeveralOrAShortenedTextAndPassesClicksToTheDelegate) {
  Recorder n;
  n.setSingleMessageTemplate("Backup for group failed: %@");
  n.setMultiMessageTemplate("Backup for groups failed: %@");
  n.setMaxNumberOfVisibleItems(3);
  n.setShortedMultiMessageStringCreationFunction([](const void*, const std::string& first, long others) {
    return qv::stringWithFormat("%1$@ and %2$d more", {first, others});
  });
  EXPECT_EQ(n.composedText(), "");
  for (const char* name : {"A", "", "C", "D"}) n.pushItem({name, "id"});
  EXPECT_EQ(n.shown, (std::vector<std::string>{"Backup for group failed: A", "Backup for groups failed: A, ",
                                               "Backup for groups failed: A, , C", "A and 3 more"}));
  n.buttonClicked(1);  // no delegate yet: nothing happens
  n.setDelegate(&n);
  n.buttonClicked(2);
  EXPECT_EQ(n.clicks, std::vector<long>{2});
}

}  // namespace
