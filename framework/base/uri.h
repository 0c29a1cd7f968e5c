#pragma once

#include <string>
#include <vector>

/// The path of a URI as its segments: "oscar/S/D" has "oscar", "S" and "D". One leading slash belongs to no
/// segment. Empty segments stay ("a//b" has an empty one in the middle, "a/" one at the end); an empty path
/// has none.
/// Threads: as a container.
class URI
{
public:
  /// Takes over a path. With decode, %XX is replaced inside each segment after the path was split, so %2F
  /// becomes a slash inside a name; an escape without two hexadecimal digits stays as it is. Always 0.
  int path(const std::string& path, bool decode);
  const std::vector<std::string>& segments() const { return segments_; }

private:
  std::vector<std::string> segments_;
};
