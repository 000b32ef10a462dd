// What both installation fuzz targets share: a transport that swallows what
// is sent and a log that goes nowhere.
#pragma once

#include <ostream>
#include <streambuf>

#include "app/log.h"
#include "install/transport.h"

namespace tarnlift::fuzzing {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
};

inline void silenceLog() {
  static NullBuffer buffer;
  static std::ostream sink(&buffer);
  app::setLogStream(sink);
}

class SinkTransport : public install::DatagramTransport {
 public:
  int send(const uint8_t*, size_t length) override { return static_cast<int>(length); }
  int waitReceive(uint8_t*, uint64_t) override { return -1; }
  net::MacAddress localMac() const override { return {0x02, 0x11, 0x22, 0x33, 0x44, 0x55}; }
};

}  // namespace tarnlift::fuzzing
