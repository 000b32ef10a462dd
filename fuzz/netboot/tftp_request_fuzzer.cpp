// Any datagram on the TFTP port: the read-request check, the file name, the
// options and the OACK they lead to.
#include <cstdint>
#include <ostream>
#include <streambuf>
#include <vector>

#include "app/log.h"
#include "netboot/tftp.h"

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarnlift::netboot;
  static NullBuffer nullBuffer;
  static std::ostream nullStream(&nullBuffer);
  static bool once = [] {
    tarnlift::app::setLogStream(nullStream);
    return true;
  }();
  (void)once;
  if (size > kTftpRequestSize) size = kTftpRequestSize;
  std::vector<uint8_t> exact(data, data + size);
  TftpReadRequest request;
  if (parseTftpReadRequest(exact.data(), exact.size(), request)) {
    if (request.options.blockSize > kTftpMaxBlockSize) __builtin_trap();
    if (request.options.needsOack != (request.options.wantsTsize || request.options.wantsBlksize)) __builtin_trap();
    std::vector<uint8_t> oack = makeTftpOack(request.options, static_cast<uint32_t>(size));
    if (oack.size() < 2 || oack[1] != kTftpOpOack) __builtin_trap();
  }
  (void)tftpFileName(exact.data(), exact.size());
  return 0;
}
