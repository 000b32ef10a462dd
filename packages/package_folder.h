// The operating system's half of the package folder: listing "*.npk" and
// "*.dpk" files and opening one of them for the part reader.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packages/part_reader.h"

namespace tarnlift::packages {

// An open package file. Counts the bytes it has read, so that benchmarks and
// tests can check that only the parts are read.
class PackageFileSource : public ByteSource {
 public:
  // The file's length, or -1 when it cannot be measured.
  virtual int64_t length() = 0;
  virtual uint64_t bytesRead() const = 0;
};

// Opens folder/fileName for reading; nullptr when it cannot be opened or is
// not a regular file (directories, pipes and devices are refused so that a
// scan never blocks).
std::unique_ptr<PackageFileSource> openPackageFile(const std::string& path);

// folder + the platform's separator + name.
std::string joinFolderPath(const std::string& folder, const std::string& name);

// Whether folder names a directory that can be listed.
bool folderReadable(const std::string& folder);

// Names of the entries of folder that match "*" + extension (extension with
// its dot, lower case), directories left out, in the order the system gives
// them. Windows matches as its own file search does (without regard to
// case); elsewhere the name must end in exactly the extension.
std::vector<std::string> listFolderFiles(const std::string& folder, const std::string& extension);

}  // namespace tarnlift::packages
