// Feeds arbitrary bytes to the preferences reader: the JSON text, then every group and destination
// record in it, read and written back as a save would.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/QVValue.h"
#include "targets/QVGroup.h"
#include "targets/QVTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto value = qv::parseJSON(std::string(reinterpret_cast<const char*>(data), size));
  if (!value || !value->dictionary()) return 0;
  const QVValue* agent = qv::valueForKey(*value->dictionary(), "QVBackupAgent");
  if (!agent || !agent->dictionary()) return 0;
  for (const char* key : {"groups", "targets"}) {
    const QVValue* records = qv::valueForKey(*agent->dictionary(), key);
    if (!records || !records->array()) continue;
    for (const QVValue& record : *records->array()) {
      if (!record.dictionary()) continue;
      std::vector<std::string> problems;
      if (std::string(key) == "groups") {
        QVGroup group = QVGroup::fromDictionary(*record.dictionary(), &problems);
        if (group.identifier.empty()) __builtin_trap();  // every record gets an identifier
        QVGroup::fromDictionary(group.dictionary());
      } else {
        QVTarget target = QVTarget::fromDictionary(*record.dictionary(), &problems);
        if (target.identifier.empty()) __builtin_trap();
        QVTarget::fromDictionary(target.dictionary());
      }
    }
  }
  return 0;
}
