// Journal recovery on an arbitrary segment and marks file: the first bytes
// of the input say where the segment ends and the marks begin. Three inputs
// in four also fail one file call (its kind, its turn and its errno taken
// from the input's checksum): whatever fails, nothing may crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <errno.h>

#include <korvel/network/internal/RequestStore.h>
#include "../tests/support/FaultInjectingFileSystem.h"
#include "FuzzSupport.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace korvel::network::internal;
  if (size < 2) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = std::min<size_t>(size - 2, (size_t{data[0]} << 8 | data[1]) * 8);
  const fs::path dir = korvel::fuzz::scratch() / "journal";
  std::error_code ec;
  fs::remove_all(dir, ec);
  fs::create_directories(dir, ec);
  // A valid header, so the frames themselves are what is read.
  std::string segment("KVRJRNL1\x01\0\0\0\x01\0\0\0", 16);
  segment.append(input.substr(2, split));
  korvel::fuzz::writeFile(dir / "seg-0000000001.log", segment);
  korvel::fuzz::writeFile(dir / "seg-0000000001.done", input.substr(2 + split));
  RequestStoreOptions options;
  options.directory = dir;
  options.segmentBytes = 64 * 1024;
  korvel::testing::FaultInjectingFileSystem files;
  const uint32_t choice = crc32c(data, size);
  if ((choice & 3) != 0) {
    constexpr int kErrors[] = {EIO, ENOSPC, EMFILE, EACCES, EFBIG, ELOOP};
    const auto kind = static_cast<FileCall>((choice >> 2) % static_cast<uint32_t>(FileCall::Count));
    files.failAt(kind, static_cast<int>(1 + (choice >> 8) % 24), kErrors[(choice >> 16) % 6]);
  }
  options.fileSystem = &files;
  if (auto store = openJournalRequestStore(options)) {
    for (const auto& request : store->recover()) (void)store->load(request.id);
    store->sync({});
  }
  // Frames straight from the input, too.
  size_t offset = 0;
  StoredRequest request;
  while (decodeFrame(input, offset, request) == FrameStatus::Ok) {
  }
  uint64_t budget = 4 * size;
  (void)findNextFrame(input, 1, budget);
  return 0;
}
