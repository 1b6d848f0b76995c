// qv-copy-bench copies one file or folder tree with QVFileCopier, the way the local destination does
// (ignoring source errors, a delegate that always continues), so that copy_bench.sh can time it against
// `cp -a`. It prints the totals and the number of progress reports; it exits 1 when the copy fails.
#include <cstdio>
#include <string>

#include "platform/QVError.h"
#include "platform/QVFileCopier.h"

namespace {

class CountingDelegate : public QVFileCopierDelegate {
 public:
  bool fileManagerShouldContinueCopyingItem() override {
    ++m_questions;
    return true;
  }
  void fileManagerReachedProgress(double) override { ++m_reports; }
  void fileManagerCalculatedFiles(std::uint64_t files, std::uint64_t size) override {
    m_files = files;
    m_size = size;
  }

  void print() const {
    std::printf("files %llu, bytes %llu, questions %llu, progress reports %llu\n",
                static_cast<unsigned long long>(m_files), static_cast<unsigned long long>(m_size),
                static_cast<unsigned long long>(m_questions), static_cast<unsigned long long>(m_reports));
  }

 private:
  std::uint64_t m_files = 0;
  std::uint64_t m_size = 0;
  std::uint64_t m_questions = 0;
  std::uint64_t m_reports = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s SOURCE DESTINATION\n", argv[0]);
    return 2;
  }
  CountingDelegate delegate;
  QVFileCopier copier;
  copier.setDelegate(&delegate);
  QVError error;
  if (!copier.copyItemReportingProgressAtPath(argv[1], argv[2], true, &error)) {
    std::fprintf(stderr, "copy failed: status %lld, %s (%s)\n", static_cast<long long>(error.code),
                 error.localizedDescription.value_or("").c_str(), error.filePath.value_or("").c_str());
    return 1;
  }
  delegate.print();
  return 0;
}
