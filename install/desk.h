// The desk: what both front ends (the window and `tarnlift serve`) do with
// the router table on every 250 ms tick. It drains the routers that the
// "Router installer" found, gives each the last installed package choice
// ("Previous Install") and the remembered defaults, merges them into the
// table, ages silent rows, and asks the sessions of busy rows (network
// routers and local drives) for news. What to show and whether to reboot is
// the front end's business; the desk reports, and holds the rule of when a
// reboot or shutdown chosen for after the install is due (AfterInstallMoment).
//
// The workers sit behind small interfaces so that tests drive the desk (and
// the window's presenter) with fakes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "app/clock.h"
#include "install/discovery.h"
#include "install/install_command.h"
#include "install/router_record.h"
#include "install/session.h"
#include "packages/package_sets.h"

namespace tarnlift::install {

// The "Router installer" thread as the front ends use it.
class RouterInstaller {
 public:
  virtual ~RouterInstaller() = default;
  // Takes the oldest discovered router without waiting; false when none.
  virtual bool popDiscovered(RouterRecord& record) = 0;
  virtual void start(const RouterRecord& request, bool install) = 0;
  // The session's values; status 0 with an empty text when there is none.
  virtual SessionStatus status(const MacAddress& mac) = 0;
  virtual void reboot(const MacAddress& mac) = 0;
  virtual void shutdown(const MacAddress& mac) = 0;
  virtual void remove(const MacAddress& mac) = 0;
};

// The InstallServer of a running "Router installer" thread.
class ServerRouterInstaller : public RouterInstaller {
 public:
  explicit ServerRouterInstaller(InstallServer& server) : server_(server) {}
  bool popDiscovered(RouterRecord& record) override { return server_.discovered().pop(record); }
  void start(const RouterRecord& request, bool install) override { server_.start(request, install); }
  SessionStatus status(const MacAddress& mac) override { return server_.status(mac); }
  void reboot(const MacAddress& mac) override { server_.reboot(mac); }
  void shutdown(const MacAddress& mac) override { server_.shutdown(mac); }
  void remove(const MacAddress& mac) override { server_.remove(mac); }
  InstallServer& server() { return server_; }

 private:
  InstallServer& server_;
};

// The local-drive installer holder: one installation thread per drive.
class DriveInstaller {
 public:
  virtual ~DriveInstaller() = default;
  // The drive rows to offer (local drives other than the system's).
  virtual std::vector<RouterRecord> listDrives() = 0;
  // Whether the drive may be erased, by what it is; when not, reason says
  // why, naming the drive (shown to the user, nothing started).
  virtual bool mayErase(const RouterRecord&, std::string&) { return true; }
  // Starts installing the drive row (filled with its options and files).
  virtual void start(const RouterRecord& request) = 0;
  // News of the drive's installation: true with its values while one exists
  // for the drive, false when there is none.
  virtual bool status(const MacAddress& mac, SessionStatus& status) = 0;
  // Stops and forgets the drive's installation, if any.
  virtual void cancel(const MacAddress& mac) = 0;
};

// No local drives (a front end that offers none, or a platform without).
class NoDriveInstaller : public DriveInstaller {
 public:
  std::vector<RouterRecord> listDrives() override { return {}; }
  void start(const RouterRecord&) override {}
  bool status(const MacAddress&, SessionStatus&) override { return false; }
  void cancel(const MacAddress&) override {}
};

enum class AfterInstall { Reboot, Shutdown, None };

// When the after-install action (reboot, shutdown) is taken.
// - WaitingReboot: as soon as a router waits for its reboot, that is just
//   after the installer sent "FILE\n", the end of the file list. The
//   window's timer does this.
// - TransferConfirmed: once the router has confirmed the end of the
//   transfer: its "WTRM" (whose acknowledgement covers "FILE\n"), or, when
//   that never comes, the session's success after its wait. Until then
//   "FILE\n" stays the installer's last datagram, so a router that lost it
//   gets it again by repeating its "RETR"; a "TERM" sent earlier would take
//   its place and the router would never see the end of its files. `serve`
//   and the web console do this.
enum class AfterInstallMoment { WaitingReboot, TransferConfirmed };

// One busy row's answer to the desk's poll.
struct DeskNews {
  MacAddress mac{};
  bool isDrive = false;
  bool hadNews = false;        // false: the session was gone and is removed
  uint32_t previousStatus = 0;  // the row's values before this tick
  uint32_t previousProgress = 0;
  std::string previousText;
  bool previousConfirmed = false;
  SessionStatus status;        // what was stored in the table (hadNews)

  // The router has just begun waiting for its reboot.
  bool startedWaitingReboot() const {
    return hadNews && status.status == kStatusWaitingReboot && previousStatus != kStatusWaitingReboot;
  }
  // The router has just confirmed the end of its transfer: "WTRM" was heard
  // since the last poll, or the session ended in success without it (30 s
  // after "FILE\n"; or 3 s after a "WTRM" that no poll saw).
  bool transferJustConfirmed() const {
    if (!hadNews || isDrive || previousConfirmed) return false;
    if (status.status == kStatusWaitingReboot) return status.confirmed;
    return status.status == kStatusDone;
  }
  // Whether the after-install action is due now; never twice for one
  // installation.
  bool afterInstallDue(AfterInstallMoment moment) const {
    return moment == AfterInstallMoment::WaitingReboot ? startedWaitingReboot() : transferJustConfirmed();
  }
};

class InstallDesk {
 public:
  InstallDesk(RouterInstaller& routers, DriveInstaller& drives, packages::PackageSets& sets,
              RememberedChoices& remembered, const app::Clock& clock);

  RouterTable& table() { return table_; }
  RouterInstaller& routers() { return routers_; }
  DriveInstaller& drives() { return drives_; }

  // The folder a new row starts in when there is no "Previous Install".
  void setPackageDir(const std::string& dir) { packageDir_ = dir; }
  const std::string& packageDir() const { return packageDir_; }

  // A new router or a drive starts from the last installed choice and the
  // remembered defaults.
  void prepareNewRouter(RouterRecord& record) const;
  // Drives get "Previous Install" and the remembered baud rate only.
  void prepareNewDrive(RouterRecord& record) const;

  // Every drive of the drive installer, prepared, as a row. Returns how many.
  size_t addDrives();
  // Takes every waiting discovered router, prepares it and merges it into
  // the table. Returns the MACs of the rows that were inserted (empty when
  // the table did not change).
  std::vector<MacAddress> drainDiscovered();
  // Removes "Ready" routers silent for 60 s; true when the table changed.
  bool age();
  // Asks the session of every row in "Installing" or "Waiting reboot" for
  // news. News is stored in the table (a network router whose session is
  // gone hands status 0 to it); a drive without an installation has its
  // session removed. Returns one entry per busy row, in table order.
  std::vector<DeskNews> poll();
  // The auto reboot choice for a router now waiting for reboot.
  void actAfterInstall(const MacAddress& mac, AfterInstall after);
  // When actAfterInstallOnce acts (default: WaitingReboot, the window's).
  void setAfterInstallMoment(AfterInstallMoment moment) { afterInstallMoment_ = moment; }
  AfterInstallMoment afterInstallMoment() const { return afterInstallMoment_; }
  bool afterInstallDue(const DeskNews& news) const { return news.afterInstallDue(afterInstallMoment_); }
  // The after-install action for news that makes it due (see
  // AfterInstallMoment); nothing for any other news (so a front end may
  // offer it every news of every tick). True when it acted.
  bool actAfterInstallOnce(const DeskNews& news, AfterInstall after);

  // After an Install command started a row's session: the row shows the
  // session's first status at once, without waiting for the next tick.
  void showFirstStatus(const MacAddress& mac);

  // The beacon's sender; the tick calls it on every fourth tick. Unset (or
  // a sender that finds its switch off) sends nothing.
  void setBeacon(std::function<void()> send) { sendBeacon_ = std::move(send); }

  // The 250 ms tick every front end runs: the beacon on every fourth tick,
  // then drain, age and poll.
  struct TickResult {
    std::vector<MacAddress> added;
    bool tableChanged = false;
    std::vector<DeskNews> news;
  };
  TickResult tick();

  static bool isDriveMac(const MacAddress& mac);

 private:
  RouterInstaller& routers_;
  DriveInstaller& drives_;
  packages::PackageSets& sets_;
  RememberedChoices& remembered_;
  const app::Clock& clock_;
  RouterTable table_;
  std::string packageDir_;
  std::function<void()> sendBeacon_;
  uint64_t ticks_ = 0;
  AfterInstallMoment afterInstallMoment_ = AfterInstallMoment::WaitingReboot;
};

}  // namespace tarnlift::install
