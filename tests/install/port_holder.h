// Holds a UDP port so that nobody else can bind it, the way another program
// that owns the port would.
#pragma once

#include <cstdint>

namespace tarnlift::testing {

class PortHolder {
 public:
  explicit PortHolder(uint16_t port);
  ~PortHolder();
  bool holding() const { return holding_; }

 private:
  intptr_t socket_ = -1;
  bool holding_ = false;
};

// Sends payload from a socket bound to an ephemeral port, to 127.0.0.1:port.
bool sendFromOtherPort(uint16_t port, const void* data, size_t length);

}  // namespace tarnlift::testing
