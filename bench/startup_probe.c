/* Start-up floor for make bench: a program that links only libc, or (with
 * PROBE_CURL) libcurl too, so that the cost of loading libcurl's dependency
 * tree can be told apart. pelvane initialises libcurl only for RTSP sources,
 * so the probe only makes sure the library is loaded. */
#include <stdio.h>
#ifdef PROBE_CURL
#include <curl/curl.h>
#endif

int main(void) {
#ifdef PROBE_CURL
  return curl_version()[0] == '\0';
#else
  return ferror(stdout);
#endif
}
