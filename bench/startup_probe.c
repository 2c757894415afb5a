/* Start-up floors for make bench: a program that links only libc; with
 * PROBE_TLS, also the system libraries the static FFmpeg needs (GnuTLS, zlib);
 * with PROBE_CURL, libcurl too. The differences tell what loading libcurl's
 * dependency tree costs. pelvane initialises libcurl only for RTSP sources, so
 * the probes only make sure each library is loaded. */
#include <stdio.h>
#ifdef PROBE_TLS
#include <gnutls/gnutls.h>
#include <zlib.h>
#endif
#ifdef PROBE_CURL
#include <curl/curl.h>
#endif

int main(void) {
  int bad = ferror(stdout);
#ifdef PROBE_TLS
  bad |= gnutls_check_version(NULL) == NULL || zlibVersion()[0] == '\0';
#endif
#ifdef PROBE_CURL
  bad |= curl_version()[0] == '\0';
#endif
  return bad;
}
