#pragma once

#include <map>
#include <string>

/// Reads the settings of an INI file: "key = value" lines that stand before any "[section]", and
/// comments that begin with ";" or "#". The host's helper commands read the same files and have to
/// read them alike.
/// @return the settings; none when the file does not exist. A file that cannot be read or is
///         malformed is logged at level 3 and gives none either, so that its reader goes on with
///         defaults.
std::map<std::string, std::string> ReadIniFile(const std::string& path);
