// The few socket calls the installation transport makes, so that its logic
// stays the same on every platform. Handles are the platform's socket
// numbers widened; kNoSocket means none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnlift::installsock {

using Handle = intptr_t;
inline constexpr Handle kNoSocket = -1;

Handle createUdp();
bool setBroadcast(Handle socket);
bool setReuseAddress(Handle socket);
// Unconnected UDP receives must never fail because of an ICMP error that an
// earlier send provoked. Where the platform reports those, switch them off.
void ignoreConnectionResets(Handle socket);
// Binds so that the socket hears every datagram for port that arrives on the
// interface holding address, broadcasts included, and sends its broadcasts
// out of that interface. interfaceName is the system's name for it (may be
// empty where the platform does not need it).
bool bindOnInterface(Handle socket, uint32_t address, const std::string& interfaceName, uint16_t port);
// Asks the system to discard, before they wake anybody, arriving datagrams
// whose payload starts with mac: the copies of our own broadcasts that the
// system hands back to us. Does nothing where the platform has no such filter;
// the caller drops them anyway.
void dropDatagramsFrom(Handle socket, const uint8_t* mac);
// Destination address in network order, port in host order.
int sendTo(Handle socket, const void* data, size_t length, uint32_t address, uint16_t port);
// Returns the byte count or -1; the source port is in host order.
int receiveFrom(Handle socket, void* buffer, size_t size, uint32_t& sourceAddress, uint16_t& sourcePort);
// 1 readable, 0 time-out, -1 error. A time-out of 0 waits without limit.
int waitReadable(Handle socket, uint64_t timeoutUs);
// Waits at most timeoutUs (0: without limit) and receives: the byte count,
// kTimedOut when nothing came, -1 on error. In one system call where the
// platform allows; armedUs is the caller's memory of the time-out the socket
// is set to (0 after opening), so that it is only set again when it changes.
inline constexpr int kTimedOut = -2;
int receiveWithin(Handle socket, void* buffer, size_t size, uint64_t timeoutUs, uint64_t& armedUs,
                  uint32_t& sourceAddress, uint16_t& sourcePort);
void closeSocket(Handle socket);
uint32_t lastError();

}  // namespace tarnlift::installsock
