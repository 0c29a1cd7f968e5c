#pragma once

#include <cstdint>
#include <string>

namespace kestrel
{
/// What a sign-in leaves for later commands: one file for each server, mode 0600, below $KESTREL_CONSOLE_DIR
/// or
/// ~/.config/kestrel.
/// Threads: main thread. A plain value; the token is a secret until it ends.
/// Crash:   the file is replaced as a whole.
struct Console_Credentials {
  std::string url; ///< https://HOST:PORT
  std::string user;
  std::string role;
  std::string token;
  std::string ca_pem;  ///< empty: the system's authorities
  std::string expires; ///< as the server told; may be empty
};

/// The URL in the one form that credentials are kept under: HOST, HOST:PORT and https://HOST/ become
/// https://HOST:PORT. False with `error` for anything else.
[[nodiscard]] bool normal_server_url(const std::string& text, std::string& url, std::string& error);

/// The file for this URL (in its normal form). False with `error` when nobody says where such files go.
[[nodiscard]] bool credentials_path(const std::string& url, std::string& path, std::string& error);

/// `found` is false when there was no sign-in. False with `error` for a file that cannot be used.
[[nodiscard]] bool load_credentials(const std::string& url, Console_Credentials& credentials, bool& found,
                                    std::string& error);
[[nodiscard]] bool save_credentials(const Console_Credentials& credentials, std::string& path,
                                    std::string& error);
/// True, too, when there is no such file.
[[nodiscard]] bool remove_credentials(const std::string& url, std::string& error);
} // namespace kestrel
