// Windows only: the transport's timed receive waits with select, which fails
// when the socket handle is no longer a socket. That failure is a wait that
// brought nothing: the transport probes its interface, finds it unusable and
// reopens, instead of ending the program as a failed receive would.
#include <winsock2.h>

#include <gtest/gtest.h>

#include "app/registry.h"
#include "install/transport.h"
#include "net/udp_socket.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace install;

TEST(InstallTransportWindows, FailedSelectProbesAndReopens) {
  net::startSocketLibrary();
  testing::CapturedLog log;
  InstallTransport::Options options;
  options.store = app::makeMemorySettingsStore();
  uint32_t loopback = parseDottedAddress("127.0.0.1");
  int resolved = 0;
  options.resolver = [&](uint32_t) {
    ++resolved;
    return InstallInterface{loopback, {2, 0, 0, 0, 0, 9}, "lo"};
  };
  options.broadcastAddress = loopback;
  options.sleep = [](uint32_t) {};
  InstallTransport transport(options);
  transport.init(MacAddress{}, std::nullopt, static_cast<uint16_t>(30000 + GetCurrentProcessId() % 20000));
  ASSERT_TRUE(transport.isOpen());
  ASSERT_EQ(resolved, 1);
  // Pull the socket from under the transport: select now fails (WSAENOTSOCK).
  closesocket(static_cast<SOCKET>(transport.socketHandle()));
  uint8_t buffer[kDatagramBufferSize] = {};
  EXPECT_EQ(transport.waitReceive(buffer, 50'000), -1);
  EXPECT_FALSE(log.contains("recvfrom() failed"));
  // The probe could not be sent either, so the transport opened afresh and works.
  EXPECT_EQ(resolved, 2);
  ASSERT_TRUE(transport.isOpen());
  uint8_t datagram[20] = {2, 0, 0, 0, 0, 1};
  ASSERT_EQ(transport.send(datagram, sizeof datagram), 20);
  EXPECT_EQ(transport.waitReceive(buffer, 2'000'000), 20);
}

}  // namespace
}  // namespace tarnlift
