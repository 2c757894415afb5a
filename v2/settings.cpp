#include "v2/settings.h"

#include <cstdlib>

std::string source_url;
int max_width = -1;
int max_height = -1;
bool emit_mime_type = false;
bool allow_mp4 = false;
bool source_is_hls = false;
volatile sig_atomic_t stop_signal_count = 0;

void on_stop_signal(int) {
  stop_signal_count = stop_signal_count + 1;
  if (stop_signal_count > 9) abort();
}
