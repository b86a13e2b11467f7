#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace LifeCycle {

/// A document could not be written; the log tells why.
class FileIOError : public std::exception {};

/// Writes a document to a path as its whole content, making missing parent directories. On failure
/// nothing is left at the path, not even what was there before: who cannot do without the old
/// content writes to a neighbouring name and renames. Callable from any thread.
/// @throws FileIOError
void WriteToFile(const std::string& path, std::string_view content);

}  // namespace LifeCycle
