// Feeds arbitrary bytes to the daemon's control-socket reader, as a peer would send them: every message
// it takes whole is read the way the daemon reads a request (its options) and a command reads an outcome.
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/control/QVControlProtocol.h"
#include "host/run/QVRecords.h"
#include "host/run/QVRunMonitor.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  QVControlMessageReader reader;
  // In two pieces, as a socket may deliver them.
  const std::size_t half = size / 2;
  reader.append(reinterpret_cast<const char*>(data), half);
  for (int piece = 0; piece < 2; ++piece) {
    QVDictionary message;
    std::string error;
    while (reader.next(message, error) == QVControlMessageReader::Status::message) {
      if (qv::controlString(message, "type").empty()) __builtin_trap();  // never handed out without one
      if (const QVValue* options = qv::valueForKey(message, "options"); options && options->dictionary()) {
        if (auto read = qv::optionsFromDictionary(*options->dictionary(), error); read && read->remote)
          __builtin_trap();  // a peer never says it is the daemon
      }
      if (const QVValue* outcome = qv::valueForKey(message, "outcome"); outcome && outcome->dictionary())
        qv::outcomeFromRecord(*outcome->dictionary()).line();
    }
    if (piece == 0) reader.append(reinterpret_cast<const char*>(data) + half, size - half);
  }
  return 0;
}
