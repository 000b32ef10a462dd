#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/udp_socket.h"

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif
#ifndef UDP_GRO
#define UDP_GRO 104
#endif

namespace tarnlift::net {

namespace {
// One segmented send carries at most this many datagrams and, with its UDP
// and IP headers, fits one IP packet's 65535 bytes.
constexpr size_t kMaxSegments = 44;
constexpr size_t kMaxSegmentedBytes = 65535 - 8 - 20;
// The largest datagram that one Ethernet frame carries: bigger ones are
// never segmented.
constexpr size_t kMaxSegmentSize = 1500 - 20 - 8;
}  // namespace

bool UdpSocket::batchesAvailable() { return true; }

bool UdpSocket::receiveJoined() {
  int on = 1;
  return setsockopt(static_cast<int>(handle_), IPPROTO_UDP, UDP_GRO, &on, sizeof on) == 0;
}

size_t UdpSocket::sendBatch(const Outgoing* datagrams, size_t count, uint32_t address, uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = address;
  peer.sin_port = htons(port);
  int fd = static_cast<int>(handle_);
  size_t taken = 0;
  size_t next = 0;
  while (next < count) {
    // Messages for what is left (at most kBatchLimit datagrams per call).
    mmsghdr messages[kBatchLimit];
    iovec pieces[kBatchLimit];
    alignas(cmsghdr) char controls[kBatchLimit][CMSG_SPACE(sizeof(uint16_t))];
    size_t runs[kBatchLimit];  // datagrams in each message
    size_t used = 0;
    size_t messageCount = 0;
    for (size_t i = next; i < count && used < kBatchLimit; ++messageCount) {
      size_t size = datagrams[i].size;
      size_t run = 1;
      size_t bytes = size;
      if (segmentedSends_ && size <= kMaxSegmentSize && size > 0) {
        // Equal sizes follow; a shorter one may end the run.
        while (i + run < count && used + run < kBatchLimit && run < kMaxSegments) {
          size_t nextSize = datagrams[i + run].size;
          if (nextSize > size || nextSize == 0 || bytes + nextSize > kMaxSegmentedBytes) break;
          bytes += nextSize;
          ++run;
          if (nextSize < size) break;
        }
      }
      mmsghdr& message = messages[messageCount];
      std::memset(&message, 0, sizeof message);
      message.msg_hdr.msg_name = &peer;
      message.msg_hdr.msg_namelen = sizeof peer;
      message.msg_hdr.msg_iov = pieces + used;
      message.msg_hdr.msg_iovlen = run;
      for (size_t k = 0; k < run; ++k) pieces[used + k] = {const_cast<void*>(datagrams[i + k].data), datagrams[i + k].size};
      if (run > 1) {
        char* control = controls[messageCount];
        std::memset(control, 0, sizeof controls[0]);
        message.msg_hdr.msg_control = control;
        message.msg_hdr.msg_controllen = sizeof controls[0];
        cmsghdr* header = CMSG_FIRSTHDR(&message.msg_hdr);
        header->cmsg_level = SOL_UDP;
        header->cmsg_type = UDP_SEGMENT;
        header->cmsg_len = CMSG_LEN(sizeof(uint16_t));
        uint16_t segment = static_cast<uint16_t>(size);
        std::memcpy(CMSG_DATA(header), &segment, sizeof segment);
      }
      runs[messageCount] = run;
      used += run;
      i += run;
    }
    size_t done = 0;
    while (done < messageCount) {
      int sent = ::sendmmsg(fd, messages + done, static_cast<unsigned>(messageCount - done), MSG_NOSIGNAL);
      if (sent > 0) {
        for (int k = 0; k < sent; ++k) taken += runs[done + static_cast<size_t>(k)];
        done += static_cast<size_t>(sent);
        continue;
      }
      if (sent < 0 && errno == EINTR) continue;
      if (runs[done] > 1 && (errno == EIO || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOPROTOOPT)) {
        // The system or the device cannot segment: from now on one
        // datagram per message. Build this message's datagrams again.
        segmentedSends_ = false;
        break;
      }
      // The datagrams of this message are lost (as a failed send would
      // lose one); the peers repeat themselves.
      ++done;
    }
    size_t consumed = 0;
    for (size_t k = 0; k < done; ++k) consumed += runs[k];
    next += consumed;
  }
  return taken;
}

int UdpSocket::receiveBatchWithin(Incoming* datagrams, size_t count, uint64_t timeoutUs) {
  count = std::min(count, kBatchLimit);
  if (count == 0) return 0;
  if (timeoutUs != armedTimeoutUs_) {
    timeval limit{static_cast<time_t>(timeoutUs / 1000000), static_cast<suseconds_t>(timeoutUs % 1000000)};
    if (setsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
      // Without a receive time-out: the plain wait and one datagram.
      int length = receiveWithin(datagrams[0].buffer, datagrams[0].size, timeoutUs, &datagrams[0].address,
                                 &datagrams[0].port);
      if (length < 0) return length;
      datagrams[0].length = length;
      datagrams[0].segmentSize = 0;
      return 1;
    }
    armedTimeoutUs_ = timeoutUs;
  }
  mmsghdr messages[kBatchLimit];
  iovec pieces[kBatchLimit];
  sockaddr_in peers[kBatchLimit];
  alignas(cmsghdr) char controls[kBatchLimit][CMSG_SPACE(sizeof(int))];
  std::memset(messages, 0, sizeof(mmsghdr) * count);
  for (size_t i = 0; i < count; ++i) {
    pieces[i] = {datagrams[i].buffer, datagrams[i].size};
    messages[i].msg_hdr.msg_name = &peers[i];
    messages[i].msg_hdr.msg_namelen = sizeof peers[i];
    messages[i].msg_hdr.msg_iov = &pieces[i];
    messages[i].msg_hdr.msg_iovlen = 1;
    messages[i].msg_hdr.msg_control = controls[i];
    messages[i].msg_hdr.msg_controllen = sizeof controls[i];
  }
  // The first receive waits (the socket's receive time-out); the others
  // take only what is already there.
  int received = ::recvmmsg(static_cast<int>(handle_), messages, static_cast<unsigned>(count), MSG_WAITFORONE, nullptr);
  if (received < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kTimedOut : -1;
  for (int i = 0; i < received; ++i) {
    datagrams[i].length = static_cast<int>(messages[i].msg_len);
    datagrams[i].segmentSize = 0;
    for (cmsghdr* header = CMSG_FIRSTHDR(&messages[i].msg_hdr); header != nullptr;
         header = CMSG_NXTHDR(&messages[i].msg_hdr, header)) {
      if (header->cmsg_level == SOL_UDP && header->cmsg_type == UDP_GRO) {
        int size = 0;
        std::memcpy(&size, CMSG_DATA(header), sizeof size);
        datagrams[i].segmentSize = static_cast<uint16_t>(size);
      }
    }
    datagrams[i].address = peers[i].sin_addr.s_addr;
    datagrams[i].port = ntohs(peers[i].sin_port);
  }
  return received;
}

}  // namespace tarnlift::net
