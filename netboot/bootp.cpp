#include "netboot/bootp.h"

#include <cstdio>
#include <cstring>
#include <sstream>

#include "app/log.h"
#include "netboot/boot_images.h"
#include "net/udp_socket.h"

namespace tarnlift::netboot {
namespace {

constexpr size_t kVendorCompareLength = 9;

struct VendorClass {
  const char* text;  // only the first 9 bytes count
  int clientClass;
};

// Compared in this order; the first hit wins. Both e500 variants share 130
// on purpose, and "ARM64__boot" is told apart by its first 9 bytes only.
constexpr VendorClass kVendorClasses[] = {
    {"PXEClient", kClassPxe}, {"Etherboot", 127}, {"Quenlboot", 128}, {"Mips_boot", 131},
    {"MMipsBoot", 138},       {"Powerboot", 129}, {"e500_boot", 130}, {"e500sboot", 130},
    {"440__boot", 135},       {"tile_boot", 136}, {"ARM__boot", 137}, {"ARM64__boot", 139},
};

uint8_t lowerLetter(uint8_t c) { return (c >= 'A' && c <= 'Z') ? static_cast<uint8_t>(c - 'A' + 'a') : c; }

bool sameIgnoringLetterCase(const uint8_t* data, const char* text) {
  for (size_t i = 0; i < kVendorCompareLength; ++i) {
    if (lowerLetter(data[i]) != lowerLetter(static_cast<uint8_t>(text[i]))) return false;
  }
  return true;
}

constexpr uint8_t kOptionSubnetMask = 1;
constexpr uint8_t kOptionBootFileSize = 13;
constexpr uint8_t kOptionVendorClass = 60;
constexpr uint8_t kOptionClientArch = 93;
constexpr size_t kFileOffset = 108;
constexpr size_t kFileSize = 128;

uint32_t readBig32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

}  // namespace

int vendorClassFor(const uint8_t* data, size_t length) {
  if (length < kVendorCompareLength) return kClassNone;
  for (const VendorClass& entry : kVendorClasses) {
    if (sameIgnoringLetterCase(data, entry.text)) return entry.clientClass;
  }
  return kClassNone;
}

void BootpClassifier::reset() {
  clientMac_ = MacAddress{};
  clientClass_ = kClassNone;
}

bool BootpClassifier::classify(const uint8_t* request, size_t length) {
  if (length > kBootpBufferSize) length = kBootpBufferSize;
  // Too short to hold the fixed part and the cookie: not a request at all.
  if (length < kBootpOptionsOffset) return false;
  if (request[0] != 1 || request[1] != 1 || request[2] != 6 || request[3] != 0) return false;
  if (readBig32(request + 12) != 0) return false;

  bool recognised = false;
  int architecture = -1;
  size_t pos = kBootpOptionsOffset;
  while (pos < length) {
    uint8_t code = request[pos];
    if (code == kBootpOptionPad) {
      ++pos;
      continue;
    }
    if (code == kBootpOptionEnd) break;
    if (pos + 1 >= length) break;
    size_t optionLength = request[pos + 1];
    const uint8_t* data = request + pos + 2;
    // An option running past the received bytes ends the walk unread.
    if (pos + 2 + optionLength > length) break;
    if (code == kOptionClientArch && optionLength >= 2) {
      architecture = data[0] << 8 | data[1];
      app::logLine() << "client system arch: " << architecture;
    } else if (code == kOptionVendorClass) {
      clientClass_ = kClassNone;
      // The comparison looks at 9 bytes even when the option is shorter, as
      // long as they lie inside the request.
      size_t available = length - (pos + 2);
      int found = vendorClassFor(data, available);
      recognised = found != kClassNone;
      if (recognised) clientClass_ = found;
    }
    pos += 2 + optionLength;
  }

  if (clientClass_ == kClassPxe && (architecture == 7 || architecture == 9)) clientClass_ = kClassPxeEfiX64;

  if (recognised) {
    std::memcpy(clientMac_.data(), request + kBootpChaddrOffset, 6);
    app::logLine() << "client: " << formatMac(clientMac_);
    return true;
  }
  return std::memcmp(clientMac_.data(), request + kBootpChaddrOffset, 6) == 0;
}

bool bootFileSizeBlocks(uint32_t length, uint32_t& blocks) {
  // In 512-byte blocks, always one more than whole blocks.
  uint32_t count = length / 512 + 1;
  if (count > kBootFileSizeMaxBlocks) return false;
  blocks = count;
  return true;
}

size_t buildBootpReply(uint8_t* buffer, int clientClass, uint32_t clientAddress, uint32_t serverAddress,
                       uint32_t serverNetmask, const std::string& bootFileName) {
  buffer[0] = 2;
  std::memcpy(buffer + 16, &clientAddress, 4);
  std::memcpy(buffer + 20, &serverAddress, 4);
  size_t pos = kBootpOptionsOffset;
  if (clientClass == kClassPxe || clientClass == kClassPxeEfiX64) {
    // Copied with a 128-byte bound and zero-filled behind the name.
    std::memset(buffer + kFileOffset, 0, kFileSize);
    std::memcpy(buffer + kFileOffset, bootFileName.data(),
                bootFileName.size() < kFileSize ? bootFileName.size() : kFileSize);
    BootImage image = loadBootImage(clientClass == kClassPxe ? kImageBiosPxe : kImageEfiX64);
    uint32_t blocks = 0;
    if (bootFileSizeBlocks(image.length, blocks)) {
      buffer[pos++] = kOptionBootFileSize;
      buffer[pos++] = 2;
      buffer[pos++] = static_cast<uint8_t>(blocks >> 8);
      buffer[pos++] = static_cast<uint8_t>(blocks);
    }
    buffer[pos++] = kOptionSubnetMask;
    buffer[pos++] = 4;
    std::memcpy(buffer + pos, &serverNetmask, 4);
    pos += 4;
  }
  buffer[pos] = kBootpOptionEnd;
  // The length sent: walk what was written up to the end marker.
  size_t walk = kBootpOptionsOffset;
  while (walk + 1 < kBootpBufferSize && buffer[walk] != kBootpOptionEnd) {
    walk += buffer[walk] == kBootpOptionPad ? 1 : 2 + size_t(buffer[walk + 1]);
  }
  return walk + 1;
}

std::vector<uint8_t> makeBootpRequest(const MacAddress& mac, const std::string& vendorClass, int architecture,
                                      uint32_t xid) {
  std::vector<uint8_t> request(300, 0);
  request[0] = 1;
  request[1] = 1;
  request[2] = 6;
  request[4] = static_cast<uint8_t>(xid >> 24);
  request[5] = static_cast<uint8_t>(xid >> 16);
  request[6] = static_cast<uint8_t>(xid >> 8);
  request[7] = static_cast<uint8_t>(xid);
  std::memcpy(request.data() + kBootpChaddrOffset, mac.data(), 6);
  const uint8_t cookie[4] = {99, 130, 83, 99};
  std::memcpy(request.data() + 236, cookie, 4);
  size_t pos = kBootpOptionsOffset;
  if (architecture >= 0) {
    request[pos++] = kOptionClientArch;
    request[pos++] = 2;
    request[pos++] = static_cast<uint8_t>(architecture >> 8);
    request[pos++] = static_cast<uint8_t>(architecture);
  }
  if (!vendorClass.empty()) {
    size_t length = vendorClass.size() > 40 ? 40 : vendorClass.size();
    request[pos++] = kOptionVendorClass;
    request[pos++] = static_cast<uint8_t>(length);
    std::memcpy(request.data() + pos, vendorClass.data(), length);
    pos += length;
  }
  request[pos] = kBootpOptionEnd;
  return request;
}

void printBootpMessage(const uint8_t* message, size_t length) {
  if (length < kBootpOptionsOffset) {
    app::logLine() << "bootp message too short: " << length;
    return;
  }
  auto hexBytes = [](const uint8_t* p, size_t n) {
    std::string text;
    char byte[4];
    for (size_t i = 0; i < n; ++i) {
      std::snprintf(byte, sizeof byte, "%02x ", p[i]);
      text += byte;
    }
    return text;
  };
  auto boundedText = [](const uint8_t* p, size_t n) {
    size_t end = 0;
    while (end < n && p[end] != 0) ++end;
    return std::string(reinterpret_cast<const char*>(p), end);
  };
  uint32_t address;
  app::logLine() << "opcode: " << int(message[0]);
  app::logLine() << "htype: " << int(message[1]);
  app::logLine() << "hlen: " << int(message[2]);
  app::logLine() << "hops: " << int(message[3]);
  app::logLine() << "xid: " << readBig32(message + 4);
  app::logLine() << "secs: " << (message[8] << 8 | message[9]);
  app::logLine() << "unused: " << (message[10] << 8 | message[11]);
  std::memcpy(&address, message + 12, 4);
  app::logLine() << "ciaddr: " << formatIpv4(address);
  std::memcpy(&address, message + 16, 4);
  app::logLine() << "yiaddr: " << formatIpv4(address);
  std::memcpy(&address, message + 20, 4);
  app::logLine() << "siaddr: " << formatIpv4(address);
  std::memcpy(&address, message + 24, 4);
  app::logLine() << "giaddr: " << formatIpv4(address);
  app::logLine() << "chaddr: " << hexBytes(message + kBootpChaddrOffset, 16);
  app::logLine() << "sname: " << boundedText(message + 44, 64);
  app::logLine() << "file: " << boundedText(message + kFileOffset, kFileSize);
  app::logLine() << "cookie: " << hexBytes(message + 236, 4);
  app::logLine() << "vend: " << hexBytes(message + kBootpOptionsOffset, length - kBootpOptionsOffset);
}

void BootpResponder::open(const std::string& bootFileName) {
  bootFileName_ = bootFileName;
  socket_ = network_.openBootp(serverAddress());
  classifier_.reset();
}

bool BootpResponder::reply(uint8_t* buffer, uint32_t clientAddress) {
  size_t length = buildBootpReply(buffer, classifier_.clientClass(), clientAddress, serverAddress(), serverNetmask(),
                                  bootFileName_);
  if (socket_ == nullptr) return false;
  return socket_->sendTo(buffer, length, net::kBroadcastAddress, kBootpClientPort) >= 0;
}

}  // namespace tarnlift::netboot
