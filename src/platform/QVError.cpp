#include "platform/QVError.h"

std::string QVError::message() const {
  if (recoverySuggestion) return *recoverySuggestion;
  if (localizedDescription) return *localizedDescription;
  return "";
}
