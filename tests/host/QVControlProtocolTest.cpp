// The control socket's frames and fields: whole messages come out of any split of the stream, anything
// oversized, too deep, of another protocol or not an object is refused for good, and the options and
// outcomes a command hands to the daemon come back field for field.
#include <gtest/gtest.h>

#include "host/control/QVControlProtocol.h"
#include "host/run/QVRecords.h"
#include "host/run/QVRunMonitor.h"

namespace {

using Status = QVControlMessageReader::Status;

TEST(QVControlProtocolTest, ReadsWholeMessagesFromAnySplitOfTheStream) {
  QVDictionary first = qv::controlMessage("request");
  first["text"] = std::string("é\n\"{[");
  const std::string stream = qv::encodeControlMessage(first) + qv::encodeControlMessage(qv::controlMessage("cancel"));
  for (std::size_t step : {std::size_t{1}, std::size_t{3}, stream.size()}) {
    QVControlMessageReader reader;
    std::vector<QVDictionary> messages;
    for (std::size_t at = 0; at < stream.size(); at += step) {
      reader.append(stream.data() + at, std::min(step, stream.size() - at));
      QVDictionary message;
      std::string error;
      while (reader.next(message, error) == Status::message) messages.push_back(message);
      EXPECT_EQ(error, "");
    }
    ASSERT_EQ(messages.size(), 2u) << step;
    EXPECT_EQ(messages[0], first);
    EXPECT_EQ(qv::controlString(messages[1], "type"), "cancel");
    EXPECT_FALSE(reader.hasPartialMessage());
  }
}

TEST(QVControlProtocolTest, OptionsAndOutcomesComeBackFieldForField) {
  QVCommandOptions options;
  options.command = QVCommand::targetSet;
  options.json = options.yes = options.passwordStdin = options.makeDefault = true;
  options.name = "n", options.group = "g", options.target = "t", options.restoreFolder = "/r", options.menuEntry = "e";
  options.paths = {"a", "b c"}, options.groups = {"G"};
  options.title = "T", options.groupTarget = "GT", options.versions = "3", options.schedule = "daily";
  options.type = "dav", options.path = "/p", options.server = "s", options.port = "8", options.user = "u";
  options.version = "v", options.suppliedPassword = "pw";
  std::string error;
  auto back = qv::optionsFromDictionary(qv::dictionaryFromOptions(options), error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(qv::dictionaryFromOptions(*back), qv::dictionaryFromOptions(options));
  EXPECT_FALSE(back->remote) << "set by the daemon, never taken from the peer";

  QVDictionary wrong = qv::dictionaryFromOptions(options);
  wrong["paths"] = QVArray{QVValue(1)};
  EXPECT_FALSE(qv::optionsFromDictionary(wrong, error));
  wrong = qv::dictionaryFromOptions(options);
  wrong["command"] = "format disk";
  EXPECT_FALSE(qv::optionsFromDictionary(wrong, error));
  EXPECT_NE(error.find("unknown command"), std::string::npos);

  QVRunOutcome outcome;
  outcome.groupID = "ID", outcome.title = "Photos", outcome.kind = QVRunOutcome::Kind::completeWithMissingItems;
  outcome.statusCode = -43, outcome.message = "m";
  outcome.report = QVRunReport{"ID",
                               "20240105143007.backup",
                               {},
                               {},
                               2,
                               3,
                               4,
                               {"/x"},
                               {"/y"},
                               {"/z (why)"},
                               true,
                               {"/home/ann/Backups"},
                               {"not backed up: /w"}};
  const QVDictionary record = qv::outcomeRecord(outcome);
  EXPECT_EQ(record.at("outcome"), QVValue("complete with missing items")) << "a kind travels by its name";
  const QVRunOutcome copy = qv::outcomeFromRecord(record);
  EXPECT_EQ(copy.line(), outcome.line());
  EXPECT_EQ(copy.detailLines(), outcome.detailLines());
  EXPECT_EQ(qv::outcomeRecord(copy), record);
}

}  // namespace
