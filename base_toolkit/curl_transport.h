// The libcurl settings that every transfer of the system shares: libcurl's
// global set-up, whom TLS trusts, how a dead or stalled network ends a
// transfer, and the device's proxy. The HTTP runner, the downloader, the
// uploader and the browser stand-in all take them from here, so they can
// never disagree on trust or proxy again.
//
// Thread safety: safe on any thread; each call touches only its handle.
#pragma once

#include <curl/curl.h>

#include <mutex>
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
// Open connections the process keeps for reuse. The cache is shared by every
// handle, but each handle prunes it to its own limit, which libcurl sets to
// 4 or 5: with more transfers in flight than that, most of them would pay a
// new TCP and TLS set-up. Room for the widest window of downloads, as many
// upload sessions, and the requests of the run.
constexpr long kTransportCachedConnections = 40;

// libcurl's process-wide set-up, which must come before the first handle
// of any kind. Every user of libcurl in the system calls this, and nothing
// else calls curl_global_init: it is not safe against other threads, this is.
inline void InitCurlOnce() {
  static const bool done = (curl_global_init(CURL_GLOBAL_DEFAULT), true);
  (void)done;
}

// One cache of open connections, TLS sessions and host names for every
// transfer of the process, so that a handle made for one transfer (an
// upload) still finds the connection that the last one left open, and no new
// TLS handshake, with its reading of the CA bundle, is needed. Handles of
// several threads use it, so it locks. Never destroyed: handles may still be
// cleaned up while statics are destroyed at exit.
inline CURLSH* SharedTransportCaches() {
  struct Caches {
    std::mutex locks[CURL_LOCK_DATA_LAST];
    CURLSH* share = nullptr;

    static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
      static_cast<Caches*>(self)->locks[data].lock();
    }
    static void Unlock(CURL*, curl_lock_data data, void* self) {
      static_cast<Caches*>(self)->locks[data].unlock();
    }
    Caches() {
      InitCurlOnce();  // before any share exists
      share = curl_share_init();
      if (!share) return;
      curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &Caches::Lock);
      curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &Caches::Unlock);
      curl_share_setopt(share, CURLSHOPT_USERDATA, this);
      curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
      curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
      curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    }
  };
  static Caches* caches = new Caches;
  return caches->share;
}

// What the options take from the device. A long-lived handle reads them
// once, rather than the proxy setting file for every transfer.
struct TransportSettings {
  std::string ca_bundle;
  std::string proxy;  // empty: none
};

inline TransportSettings ReadTransportSettings() {
  TransportSettings settings;
  settings.ca_bundle = DevicePath(kCaBundlePath);
  char* proxy = get_proxy();
  if (proxy) {
    settings.proxy = proxy;
    clean_proxy_object(&proxy);
  }
  return settings;
}

// Sets on `curl`, in this order: the low-speed rule, peer and host
// verification, redirects (only with `follow_redirects`: at most 10), the CA
// bundle (and no CA folder), the connect time-out, the size of the
// connection cache, no signals, http and https
// only (redirects included), the proxy of `settings`, and the process's
// shared caches. Without a
// device proxy an empty one is set, so that no proxy is taken from the
// environment. Gives the first failing code of an option, or CURLE_OK; the
// proxy's result is not looked at, as a proxy the device cannot use must not
// stop a transfer from trying.
inline CURLcode SetTransportOptions(CURL* curl, bool follow_redirects,
                                    const TransportSettings& settings) {
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
  set(curl_easy_setopt(curl, CURLOPT_CAINFO,
                       settings.ca_bundle.c_str()));  // libcurl copies the text
  set(curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr));
  set(curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kTransportConnectSeconds));
  set(curl_easy_setopt(curl, CURLOPT_MAXCONNECTS, kTransportCachedConnections));
  set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));  // time-outs without SIGALRM, any thread
  set(curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https"));
  set(curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https"));
  (void)curl_easy_setopt(curl, CURLOPT_PROXY, settings.proxy.c_str());
  CURLSH* caches = SharedTransportCaches();
  if (caches) set(curl_easy_setopt(curl, CURLOPT_SHARE, caches));
  return err;
}

inline CURLcode SetTransportOptions(CURL* curl, bool follow_redirects) {
  return SetTransportOptions(curl, follow_redirects, ReadTransportSettings());
}

}  // namespace utilities
}  // namespace quillstone
