// Any datagram on the BOOTP port: classify it, and when it is accepted build
// the reply over it, as the server does.
#include <cstdint>
#include <cstring>
#include <ostream>
#include <streambuf>
#include <vector>

#include "app/log.h"
#include "netboot/boot_images.h"
#include "netboot/bootp.h"

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
};

class SmallStore : public tarnlift::netboot::BootImageStore {
 public:
  SmallStore() : record_(tarnlift::netboot::makeBootImageRecord(reinterpret_cast<const uint8_t*>("x"), 1)) {}
  bool findRecord(int, const uint8_t*& record, size_t& size) override {
    record = record_.data();
    size = record_.size();
    return true;
  }

 private:
  std::vector<uint8_t> record_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarnlift::netboot;
  static NullBuffer nullBuffer;
  static std::ostream nullStream(&nullBuffer);
  static SmallStore store;
  static bool once = [] {
    tarnlift::app::setLogStream(nullStream);
    setBootImageStore(&store);
    return true;
  }();
  (void)once;
  // The first byte splits the input into two requests from one client: the
  // second is judged with what the first taught the classifier.
  size_t split = size == 0 ? 0 : data[0] % (size + 1);
  BootpClassifier classifier;
  const uint8_t* parts[2] = {data, data + split};
  size_t lengths[2] = {split, size - split};
  for (int i = 0; i < 2; ++i) {
    std::vector<uint8_t> buffer(kBootpBufferSize, 0);
    size_t n = lengths[i] < kBootpBufferSize ? lengths[i] : kBootpBufferSize;
    if (n != 0) std::memcpy(buffer.data(), parts[i], n);
    // The exact received length, so that reads past it are caught.
    std::vector<uint8_t> exact(parts[i], parts[i] + lengths[i]);
    if (classifier.classify(exact.data(), exact.size())) {
      size_t length = buildBootpReply(buffer.data(), classifier.clientClass(), 1, 2, 3, "/image");
      if (length > kBootpBufferSize) __builtin_trap();
    }
    printBootpMessage(exact.data(), exact.size());
  }
  return 0;
}
