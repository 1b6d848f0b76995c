#include "host/cli/QVJSONErrorReport.h"

#include <iostream>
#include <sstream>

#include "platform/QVValue.h"

namespace {

constexpr const char* kPrefix = "stellwin-backup: ";

}  // namespace

// Passes every character on to the stream's own buffer and keeps a copy.
class QVJSONErrorReport::Watch : public std::streambuf {
 public:
  explicit Watch(std::ostream& stream) : m_stream(stream), m_target(stream.rdbuf(this)) {}
  ~Watch() override { restore(); }
  void restore() {
    if (!m_target) return;
    m_stream.rdbuf(m_target);
    m_target = nullptr;
  }
  const std::string& written() const { return m_written; }

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    m_written.push_back(traits_type::to_char_type(c));
    return m_target ? m_target->sputc(traits_type::to_char_type(c)) : c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    m_written.append(s, static_cast<std::size_t>(n));
    return m_target ? m_target->sputn(s, n) : n;
  }
  int sync() override { return m_target ? m_target->pubsync() : 0; }

 private:
  std::ostream& m_stream;
  std::streambuf* m_target;
  std::string m_written;
};

QVJSONErrorReport::QVJSONErrorReport()
    : m_out(std::make_unique<Watch>(std::cout)), m_err(std::make_unique<Watch>(std::cerr)) {}

QVJSONErrorReport::~QVJSONErrorReport() {
  m_out->restore();
  m_err->restore();
}

int QVJSONErrorReport::finish(int status) {
  m_out->restore();
  m_err->restore();
  if (m_finished) return status;
  m_finished = true;
  if (status != 0 && m_out->written().find_first_not_of(" \n") == std::string::npos) {
    std::string message = lastError(m_err->written());
    if (message.empty()) message = status == 130 ? "interrupted" : "failed";
    std::cout << errorJSON(message, status) << std::endl;
  }
  return status;
}

std::string QVJSONErrorReport::errorJSON(const std::string& message, int status) {
  return qv::toJSON(QVValue(QVDictionary{{"error", message}, {"exitStatus", static_cast<std::int64_t>(status)}}));
}

std::string QVJSONErrorReport::lastError(const std::string& written) {
  std::istringstream lines(written);
  std::string error, any;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(kPrefix, 0) == 0) line.erase(0, std::string(kPrefix).size());
    if (line.empty()) continue;
    any = line;
    if (line.rfind("warning: ", 0) != 0) error = line;
  }
  return error.empty() ? any : error;
}
