#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kestrel
{
/// Shows how far a long piece of work is: a bar with rate and remaining time on a terminal, a plain line for
/// every tenth of the work elsewhere, nothing when quiet.
/// Threads:   one at a time (the caller serialises); steady across threads.
/// Units:     bytes; times come from the monotonic clock.
/// Errors:    none; output that cannot be written is dropped.
class Progress_Display
{
public:
  enum class Mode { quiet, lines, bar };

  /// `stream` is not owned and must outlive the display. A bar is drawn only on a terminal.
  Progress_Display(std::FILE* stream, Mode mode, std::string label);
  ~Progress_Display();
  Progress_Display(const Progress_Display&) = delete;
  Progress_Display& operator=(const Progress_Display&) = delete;

  void update(uint64_t done_bytes, uint64_t total_bytes);
  /// A line of text above the bar, or of its own.
  void note(const std::string& text);
  /// Wipes the bar; called by the destructor too.
  void finish();

private:
  void draw_bar(int64_t now_msec);
  void erase_bar();
  std::string rate_text(int64_t now_msec) const;

  std::FILE* stream_;
  Mode mode_;
  std::string label_;
  uint64_t done_bytes_ = 0;
  uint64_t total_bytes_ = 0;
  int64_t first_update_msec_ = -1;
  uint64_t first_update_bytes_ = 0;
  int64_t last_draw_msec_ = -1;
  int last_tenth_ = 0;
  bool bar_on_screen_ = false;
};

/// Mode that suits `stream`: a bar on a terminal that can move its cursor, else lines.
Progress_Display::Mode progress_mode_of(std::FILE* stream);
} // namespace kestrel
