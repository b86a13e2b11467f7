#pragma once

#include <string>

/// Settings of the host that its programs share, from the INI file /etc/tessel/preferences.
///
/// | preference | meaning | default |
/// |---|---|---|
/// | console_origin | whose web pages may call the API: "https://console.example" | none |
/// | front_account | account of the program that passes on the requests of TLS clients | www-data |
/// | libdir | directory of the libraries that come bundled with the host | /usr/lib/tessel |

/// Reads the preferences. Called once at start-up, before threads that ask for any are started; a
/// missing file leaves every preference unset.
void Preference_Init(const std::string& path = "/etc/tessel/preferences");

/// @return the preference's value, or `fallback` when it is unset. Callable from any thread.
std::string Preference_GetString(const std::string& key, const std::string& fallback);
