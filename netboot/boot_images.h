// The boot image store: numbered, length-prefixed records carried by the
// program. Windows carries them as RCDATA resources of the executable; both
// platforms also map them from directories of files named "<number>.bin". Either way a
// record is a 32-bit little-endian length L, L content bytes and up to a few
// bytes of padding that are ignored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift::netboot {

// Numbers of the records (the client classes of the BOOTP responder for the
// network ones).
inline constexpr int kImageBiosPxe = 125;
inline constexpr int kImagePxelinuxConfig = 126;
inline constexpr int kImageLdlinux = 142;
inline constexpr int kImageEfiX64 = 143;

// A view of a record's content. It does not own the memory: records stay
// mapped for the life of the process.
struct BootImage {
  const uint8_t* data = nullptr;
  uint32_t length = 0;
};

// Splits a stored record into its content; false when the record is shorter
// than its length field says.
bool parseBootImageRecord(const uint8_t* record, size_t storedSize, BootImage& image);
// Builds a record from content bytes (no padding).
std::vector<uint8_t> makeBootImageRecord(const uint8_t* content, size_t length);

// Where records come from.
class BootImageStore {
 public:
  virtual ~BootImageStore() = default;
  // The stored record (length field included) and its stored size; false
  // when the store has no entry with this number.
  virtual bool findRecord(int number, const uint8_t*& record, size_t& storedSize) = 0;
};

// A directory of "<number>.bin" files, each mapped on first use and kept.
std::unique_ptr<BootImageStore> makeDirectoryBootImageStore(const std::string& directory);

// Where lookups search, one record at a time: the first place that has a
// record gives it. In order:
//   1. Windows only: the RCDATA resources of the executable;
//   2. the directory given with setBootImageDirectory (`--boot-images DIR`);
//      when none was given, the per-user folder and then the system folder;
//   3. the placeholders built into the program, for 143 (UEFI) and 125
//      (BIOS): whatever folders are named, a PXE client never meets a
//      missing record (Windows: resources, elsewhere compiled-in arrays).
// Tests install their own store instead (the caller keeps it alive).
void setBootImageDirectory(const std::string& directory);
std::string bootImageDirectory();
void setBootImageStore(BootImageStore* store);
BootImageStore& currentBootImageStore();

// One place of the search, as listed to a deployer.
struct BootImageSource {
  std::string place;  // a directory, or a description of built-in records
  bool isDirectory = false;
  BootImageStore* store = nullptr;
};
// The places in search order (the test store alone when one is installed).
std::vector<BootImageSource> bootImageSources();
// One line naming the places, for the servers' start-up log.
std::string bootImageSearchText();

// Where a record was found: its place and the stored record. Never fatal.
struct BootImageLocation {
  std::string place;
  const uint8_t* record = nullptr;
  size_t storedSize = 0;
};
bool locateBootImage(int number, BootImageLocation& location);

// The record numbers the program looks up, with what each is served to.
struct BootImageUse {
  int number;
  const char* use;
};
const std::vector<BootImageUse>& bootImageUses();

// Looks the record up. A missing entry is fatal: "ResourceID=<n>" is printed
// on standard output and the failure "FindResource" is reported; a record
// that cannot be mapped or is cut short is fatal as "LoadResource".
BootImage loadBootImage(int number);

// Writes the content of record number to a new file at path (never over an
// existing one). A file that cannot be created logs "Cannot create file" on
// standard error and answers false; true when every byte was written.
bool writeBootImage(const std::string& path, int number);

// ---- Platform halves --------------------------------------------------------
// A read-only mapping of a whole file, kept until the object goes away.
class MappedFile {
 public:
  virtual ~MappedFile() = default;
  virtual const uint8_t* data() const = 0;
  virtual size_t size() const = 0;
};
// Null when the file cannot be opened or mapped. An empty file maps to a
// valid object of size 0.
std::unique_ptr<MappedFile> mapFileReadOnly(const std::string& path);
// The platform's own store searched first (Windows: the executable's
// resources), or null; with its place as listed.
BootImageStore* platformBootImageStore();
std::string platformBootImagePlace();
// The built-in placeholders searched last (numbers 143 and 125), or null
// when the build made none.
BootImageStore* placeholderBootImageStore();
bool directoryExists(const std::string& path);
// The per-user folder (empty when the environment names no home) and the
// system folder searched when no directory was given.
std::string userBootImageDirectory();
std::string systemBootImageDirectory();

}  // namespace tarnlift::netboot
