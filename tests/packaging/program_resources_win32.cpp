// Reads a program's version resource and manifest the way Explorer and the
// loader do, and prints what it found, one "name=value" line each:
//   program_resources PROGRAM.exe
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

std::string versionValue(const std::vector<char>& block, const char* name) {
  char* value = nullptr;
  UINT length = 0;
  const std::string path = std::string("\\StringFileInfo\\040904B0\\") + name;
  if (!VerQueryValueA(block.data(), path.c_str(), reinterpret_cast<void**>(&value), &length) || length == 0) return "";
  return std::string(value);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: program_resources PROGRAM.exe\n");
    return 2;
  }
  DWORD handle = 0;
  const DWORD size = GetFileVersionInfoSizeA(argv[1], &handle);
  if (size == 0) {
    std::printf("version=none\n");
  } else {
    std::vector<char> block(size);
    if (!GetFileVersionInfoA(argv[1], 0, size, block.data())) return 1;
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (VerQueryValueA(block.data(), "\\", reinterpret_cast<void**>(&fixed), &length) && fixed != nullptr) {
      std::printf("fileversion=%lu.%lu.%lu.%lu\n", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
                  HIWORD(fixed->dwFileVersionLS), LOWORD(fixed->dwFileVersionLS));
    }
    for (const char* name : {"CompanyName", "ProductName", "FileVersion", "ProductVersion", "FileDescription",
                             "OriginalFilename"}) {
      std::printf("%s=%s\n", name, versionValue(block, name).c_str());
    }
  }
  HMODULE module = LoadLibraryExA(argv[1], nullptr, LOAD_LIBRARY_AS_DATAFILE);
  if (module == nullptr) return 1;
  HRSRC found = FindResourceA(module, MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(24));
  if (found == nullptr) {
    std::printf("manifest=none\n");
  } else {
    const DWORD length = SizeofResource(module, found);
    const char* text = static_cast<const char*>(LockResource(LoadResource(module, found)));
    std::string manifest(text, length);
    for (char& c : manifest) {
      if (c == '\r' || c == '\n') c = ' ';
    }
    std::printf("manifest=%s\n", manifest.c_str());
  }
  FreeLibrary(module);
  return 0;
}
