// The network boot server for front ends without a window (the headless
// `serve` and `netboot` commands): its options and a start/stop wrapper
// around the "PXE Booter" thread.
//
//   NetbootServeOptions options;  // filled from the command line
//   ... once the client address is known:
//   NetbootService service;
//   if (options.netboot && !service.start(clientAddress, options, error)) -> fail
//   ... serve until told to stop ...
//   service.stop();
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift::netboot {

class NetbootThread;

struct NetbootServeOptions {
  bool netboot = false;      // --netboot
  std::string bootImageDir;  // --boot-images DIR
  std::string kernelFile;    // --kernel FILE: served in place of every boot image
  // Which clients get a BOOTP answer (6 bytes of MAC); unset: all.
  std::function<bool(const uint8_t* mac)> mayAnswer;
};

class NetbootService {
 public:
  NetbootService();
  ~NetbootService();
  NetbootService(const NetbootService&) = delete;
  NetbootService& operator=(const NetbootService&) = delete;

  // Chooses the boot image directory, saves "PXE Enabled" = 1 and "PXE Client
  // Address" in the settings store (the server reads them when it starts),
  // and starts the server thread. False with a message when the boot image
  // directory or the kernel file cannot be read.
  bool start(uint32_t clientAddress, const NetbootServeOptions& options, std::string& error);
  bool running() const;
  // Stops the server thread and waits for it (about a second).
  void stop();

 private:
  std::unique_ptr<NetbootThread> thread_;
};

}  // namespace tarnlift::netboot
