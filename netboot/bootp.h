// The BOOTP/PXE responder: recognises a booting router by the vendor class
// it names, remembers its hardware address and client class, and answers
// with a plain BOOTP reply built over the request itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "netboot/datagram.h"
#include "netboot/interfaces.h"

namespace tarnlift::netboot {

inline constexpr uint16_t kBootpServerPort = 67;
inline constexpr uint16_t kBootpClientPort = 68;
inline constexpr size_t kBootpBufferSize = 1264;
inline constexpr size_t kBootpOptionsOffset = 240;
// Where the client's hardware address sits, and the two options that carry no
// length: padding and the end of the list.
inline constexpr size_t kBootpChaddrOffset = 28;
inline constexpr uint8_t kBootpOptionPad = 0;
inline constexpr uint8_t kBootpOptionEnd = 255;
inline constexpr int kClassNone = -1;
inline constexpr int kClassPxe = 125;
inline constexpr int kClassPxeEfiX64 = 143;

// The client class that a vendor class text (option 60 data) names, by its
// first 9 bytes without regard to letter case; kClassNone when no entry of
// the table matches or fewer than 9 bytes are given.
int vendorClassFor(const uint8_t* data, size_t length);

// What classify decides; kept apart from the socket so that it can be
// tested and fuzzed alone.
class BootpClassifier {
 public:
  // Forgets the remembered client (a new server cycle).
  void reset();
  // True if the request (the received bytes, at most kBootpBufferSize) is to
  // be answered. Updates the class and the remembered MAC.
  bool classify(const uint8_t* request, size_t length);
  int clientClass() const { return clientClass_; }
  const MacAddress& clientMac() const { return clientMac_; }

 private:
  MacAddress clientMac_{};
  int clientClass_ = kClassNone;
};

// Option 13, the boot file size, counts 512-byte blocks in 16 bits; it is
// always one more than the whole blocks of the image. False when that count
// does not fit, that is for images of 65,535 * 512 = 33,553,920 bytes and
// more: the reply then leaves the option out, and a PXE client asks the
// TFTP server for the size ("tsize") instead of being told a wrapped one.
inline constexpr uint32_t kBootFileSizeMaxBlocks = 0xFFFF;
bool bootFileSizeBlocks(uint32_t length, uint32_t& blocks);

// Turns the request in buffer (kBootpBufferSize bytes, the request at its
// start, zeros behind it) into the reply for clientClass and returns the
// length to send. PXE classes get the boot file name, option 13 (when the
// size fits, see above) and option 1; the boot image is looked up in the
// store (fatal if absent).
size_t buildBootpReply(uint8_t* buffer, int clientClass, uint32_t clientAddress, uint32_t serverAddress,
                       uint32_t serverNetmask, const std::string& bootFileName);

// A BOOTREQUEST of 300 bytes as a booting client sends it: the hardware
// address, the magic cookie, option 60 with vendorClass (left out when
// empty), option 93 with architecture (left out when negative), the end
// option. For test peers and diagnostics.
std::vector<uint8_t> makeBootpRequest(const MacAddress& mac, const std::string& vendorClass, int architecture,
                                      uint32_t xid);

// Logs every field of a BOOTP message, one per line; for diagnostics only.
void printBootpMessage(const uint8_t* message, size_t length);

class BootpResponder {
 public:
  explicit BootpResponder(DatagramNetwork& network) : network_(network) {}

  // Creates and binds the socket on serverAddress() (fatal on failure) and
  // forgets the remembered client.
  void open(const std::string& bootFileName);
  bool classify(const uint8_t* request, size_t length) { return classifier_.classify(request, length); }
  // Builds the reply in buffer and broadcasts it to port 68; true if the send
  // did not fail.
  bool reply(uint8_t* buffer, uint32_t clientAddress);
  void close() { socket_.reset(); }

  bool isOpen() const { return socket_ != nullptr; }
  DatagramSocket* socket() { return socket_.get(); }
  int clientClass() const { return classifier_.clientClass(); }
  const MacAddress& clientMac() const { return classifier_.clientMac(); }

 private:
  DatagramNetwork& network_;
  std::unique_ptr<DatagramSocket> socket_;
  std::string bootFileName_;
  BootpClassifier classifier_;
};

}  // namespace tarnlift::netboot
