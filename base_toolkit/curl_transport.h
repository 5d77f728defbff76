// The libcurl settings that every transfer of the system shares: whom TLS
// trusts, how a dead or stalled network ends a transfer, and the device's
// proxy. The HTTP runner, the downloader and the uploader all take them from
// here, so the three can never disagree on trust or proxy again.
//
// Thread safety: safe on any thread; each call touches only its handle.
#pragma once

#include <curl/curl.h>

#include <string>

#include "device_root.h"
#include "tessera.h"

namespace quillstone {
namespace utilities {

// The device's CA bundle, the only trust anchor of a transfer. Under the
// device root, so that a test root can trust its own authority alone.
constexpr char kCaBundlePath[] = "/etc/ssl/certs/ca-certificates.crt";

// A transfer ends when less than 1 byte per second moves for 30 seconds, and
// a connection that is not made within 15 seconds fails.
constexpr long kTransportLowSpeedLimit = 1;
constexpr long kTransportLowSpeedSeconds = 30;
constexpr long kTransportConnectSeconds = 15;
constexpr long kTransportMaxRedirects = 10;

// Sets on `curl`, in this order: the low-speed rule, peer and host
// verification, redirects (only with `follow_redirects`: at most 10), the CA
// bundle (and no CA folder), the connect time-out, no signals, http and https
// only (redirects included), and the proxy from get_proxy(). Without a
// device proxy an empty one is set, so that no proxy is taken from the
// environment. Gives the first failing code of an option, or CURLE_OK; the
// proxy's result is not looked at, as a proxy the device cannot use must not
// stop a transfer from trying.
inline CURLcode SetTransportOptions(CURL* curl, bool follow_redirects) {
  const std::string ca_bundle = DevicePath(kCaBundlePath);
  CURLcode err = CURLE_OK;
  auto set = [&err](CURLcode r) {
    if (err == CURLE_OK) err = r;
  };
  set(curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kTransportLowSpeedLimit));
  set(curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kTransportLowSpeedSeconds));
  set(curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L));
  set(curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L));
  if (follow_redirects) {
    set(curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L));
    set(curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kTransportMaxRedirects));
  }
  set(curl_easy_setopt(curl, CURLOPT_CAINFO, ca_bundle.c_str()));  // libcurl copies the text
  set(curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr));
  set(curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kTransportConnectSeconds));
  set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));  // time-outs without SIGALRM, any thread
  set(curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https"));
  set(curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https"));
  char* proxy = get_proxy();
  (void)curl_easy_setopt(curl, CURLOPT_PROXY, proxy ? proxy : "");
  if (proxy) clean_proxy_object(&proxy);
  return err;
}

}  // namespace utilities
}  // namespace quillstone
