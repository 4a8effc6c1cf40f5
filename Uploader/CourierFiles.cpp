// The utility layer's file services behind CourierFiles.h.
#include "CourierFiles.h"

#include "FileUtil.h"
#include "Posix/UploaderFiles.h"

namespace Courier {

bool ReadFileCapped(const std::string& path, std::size_t maxBytes, std::string* contents) {
  return FileUtil::ReadSmallFile(path, maxBytes, contents);
}

bool ReplaceFileAtomically(const std::string& path, const std::string& contents) {
  return UploaderFiles::ReplaceFile(path, contents);
}

}  // namespace Courier
