// Makes a local drive into a bootable disk of the router operating system,
// on a thread of its own named "Unnamed". The owner (the window's local
// drive installer) polls its status through a notification queue.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "app/sync.h"
#include "app/thread.h"
#include "install/router_record.h"
#include "localdisk/disk_access.h"

namespace tarnlift::localdisk {

// What the row shows: state (4 preparing, 2 completed, 3 failed), status
// text, the error text when failed, and the progress counter against the
// row's total.
struct DiskStatus {
  uint32_t state = install::kStatusInstalling;
  std::string statusText;
  std::string errorText;
  uint32_t progress = 0;
  uint32_t total = 0;

  // progress against total, 0 to 100; a completed row without a total is 100.
  uint32_t percentDone() const {
    if (total == 0) return state == install::kStatusDone ? 100 : 0;
    uint64_t percent = static_cast<uint64_t>(progress) * 100 / total;
    return static_cast<uint32_t>(percent > 100 ? 100 : percent);
  }
};

class DiskInstallation : public app::Thread {
 public:
  // Copies the row, sets state 4 and "Preparing for installation...", and
  // posts a notification. services null: the platform's.
  explicit DiskInstallation(const install::RouterRecord& row, DiskServices* services = nullptr);
  // Cancels a running installation first (see cancel).
  ~DiskInstallation() override;

  // Set by the owner to end the thread once the installation is over. Set
  // while it runs, it ends the installation at the next step; the formatter
  // and the boot loader's installer are ended at once, with all they
  // started, and waited for.
  app::Event& stopEvent() { return stopEvent_; }
  // Sets the stop event and waits until the thread has ended: afterwards
  // nothing of this installation runs on the drive any more.
  void cancel();

  // A drive the caller already resolved, checked and opened (the headless
  // front end holds it from the moment it checks the target); without one,
  // step 2 holds the row's drive. Before start.
  void useHeldDrive(std::unique_ptr<HeldDrive> held) { held_ = std::move(held); }

  // The current status (under the lock).
  DiskStatus status();
  // Takes the oldest notification waiting; false when none is.
  bool nextNotification(DiskStatus& status);
  // Set whenever a notification is posted.
  app::Event& notificationEvent() { return notificationEvent_; }

  // Performs the installation on the calling thread: true when completed.
  // The thread body calls it; tests may call it directly.
  bool install();

  const install::RouterRecord& row() const { return row_; }

 protected:
  uint32_t run() override;

 private:
  // Steps 1 to 15; install() lets the drive go and reports completion.
  bool installSteps();
  // Sets the status text, adds amount to the progress counter, posts.
  void update(const std::string& text, uint32_t amount);
  bool fail(const std::string& text);
  // A drive that changed or was taken: the reason is logged, text fails.
  bool refuse(const std::string& reason, const std::string& text);
  // Whether the held drive is still the one checked; else fails with text.
  bool stillHeld(const std::string& text);
  bool stopping() { return stopEvent_.waitFor(0); }
  void post();
  bool writeBootImageFile(const std::string& name, int number);
  bool writeMbrFile(const uint8_t* sector);
  bool writeAutorun();

  install::RouterRecord row_;
  DiskServices services_;
  DriveId drive_;
  std::unique_ptr<HeldDrive> held_;
  DriveId target_;  // how the formatter and the files reach the held drive
  app::Event stopEvent_{true};
  app::Mutex mutex_;
  app::Event notificationEvent_{false};
  std::deque<DiskStatus> notifications_;
  DiskStatus status_;
};

// The window's local drive installer: one installation per drive row,
// keyed by the row's hardware address.
class LocalDiskInstaller {
 public:
  explicit LocalDiskInstaller(DiskServices* services = nullptr) : services_(services) {}
  ~LocalDiskInstaller();

  // Starts the installation of the drive row (one already held for the row
  // is cancelled first).
  void start(const install::RouterRecord& row);
  // The row's current status, taking the notifications waiting; false when
  // no installation is held for the address.
  bool news(const net::MacAddress& mac, DiskStatus& status);
  // Whether notifications were posted since the last call to news.
  bool hasNews(const net::MacAddress& mac);
  // Ends the installation of the row (its children are ended and waited
  // for, then its thread) and forgets it.
  void cancel(const net::MacAddress& mac);
  bool holds(const net::MacAddress& mac) const { return installations_.count(mac) != 0; }

 private:
  DiskServices* services_;
  std::map<net::MacAddress, std::unique_ptr<DiskInstallation>> installations_;
};

// A diagnostic, not used by the installation: one sector as eight 16-bit
// words (little-endian) per line, each line led by its byte offset.
std::string sectorDumpText(const uint8_t* sector, size_t size);
// Reads one sector of the device at its current position and prints it on
// the log stream; false when the sector could not be read whole.
bool printSector(Device& device);

// The text of the line that sets the serial ports' speed.
std::string baudRateLine(uint32_t baudRate);

// The failure text of an installation ended by its owner.
inline constexpr const char* kInstallationCancelled = "Installation cancelled";

// A test of the whole program may hold an installation at a named point to
// change the drive under it: with TARNLIFT_TEST_PAUSE=POINT:FILE in the
// environment, the installation creates FILE.reached at POINT and waits
// (at most a minute) until FILE.go exists. Nothing happens without it.
void pauseForTest(const char* point);

}  // namespace tarnlift::localdisk
