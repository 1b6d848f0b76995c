// The messages between the daemon of stellwin-backup and the other commands, on the control socket.
// A message is a frame: four bytes giving the length of its body (big-endian), then the body, a JSON
// object with "protocol" (kQVControlProtocol) and "type". A body is at most kQVControlMessageLimit bytes
// and nests at most kQVControlNestingLimit deep; a frame that breaks a rule is refused whole and ends
// the conversation, so a bad peer can never make the other side read past what it allows.
//
//   command --"request" {options, folder}--> daemon --"result" {status, out, err}--> command
//   backup:  "request" --> "accepted" {groups, err}, then "started" / "progress" {percent, item} /
//            "message" / "outcome" (the run's record, as the journal keeps it) per group, until every
//            group has its outcome; "cancel" from the command cancels its runs
//   restore, verify: "request" --> "held" {group}: no backup of the group starts until the command ends
//   anything refused --> "error" {message}; "busy" {message}: ask again in a moment
//
// Plain functions and a value-type reader; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "host/cli/QVCommandLine.h"
#include "platform/QVValue.h"

inline constexpr std::int64_t kQVControlProtocol = 1;
inline constexpr std::size_t kQVControlMessageLimit = 1 << 20;
// What a command takes from its daemon (the same user's): a whole journal fits.
inline constexpr std::size_t kQVControlReplyLimit = 64 << 20;
inline constexpr int kQVControlNestingLimit = 32;

// Takes frames off a stream of received bytes.
class QVControlMessageReader {
 public:
  explicit QVControlMessageReader(std::size_t limit = kQVControlMessageLimit) : m_limit(limit) {}
  enum class Status { message, incomplete, refused };

  void append(const char* bytes, std::size_t count);
  // The next whole message. refused: error says why, and every later call is refused too.
  Status next(QVDictionary& message, std::string& error);
  // Bytes of a message that has not wholly arrived.
  bool hasPartialMessage() const { return m_buffer.size() > m_offset; }

 private:
  std::size_t m_limit;
  std::string m_buffer;
  std::size_t m_offset = 0;  // where the next message begins in m_buffer
  std::string m_refusal;
};

namespace qv {

// The frame of a message. Requires: the body fits kQVControlMessageLimit (else the peer refuses it).
std::string encodeControlMessage(const QVDictionary& message);
// {"protocol": kQVControlProtocol, "type": type}.
QVDictionary controlMessage(const std::string& type);
// The message's "type", "" when absent; a string field, "" when absent.
std::string controlString(const QVDictionary& message, const std::string& key);

// A command's options as a message field and back. nullopt (with error) for a field of the wrong type
// or an unknown command.
QVDictionary dictionaryFromOptions(const QVCommandOptions& options);
std::optional<QVCommandOptions> optionsFromDictionary(const QVDictionary& dictionary, std::string& error);

}  // namespace qv
