/* Device library calls used by the client library: settings files, logging,
 * file calls, device state, network, tasks and events, text case.
 *
 * On the reader these come from the device's own library. The host build
 * links the stand-ins in platform/, which simulate the device on Linux inside
 * a device root. Unless said otherwise every call is safe on any thread. */
#pragma once

#include <stddef.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Settings files. A handle is an independent in-memory copy of the file as it
 * was when opened. Every call tolerates a null handle: reads give the
 * default, writes and closes do nothing. Saving is atomic: a crash leaves the
 * old file or the new one. */
void* OpenConfig(const char* path, void* defaults);
void CloseConfig(void* handle);       /* saves when changed, then frees */
void CloseConfigNoSave(void* handle); /* frees, drops unsaved changes */
void SaveConfig(void* handle);
const char* ReadString(void* handle, const char* key, const char* deflt);
const char* ReadSecret(void* handle, const char* key, const char* deflt);
int ReadInt(void* handle, const char* key, int deflt);
void WriteString(void* handle, const char* key, const char* value);
void WriteSecret(void* handle, const char* key, const char* value);
void DeleteString(void* handle, const char* key);

/* Logging. level 1 error, 3 notice, 4 information. */
void qs_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) __attribute__((format(printf, 5, 6)));
extern int g_process_pid;

/* File calls. */
int te_buildpath(const char* path); /* makes every folder of path up to its last "/" */
int te_rename(const char* from, const char* to);
int te_stat(const char* path, struct stat* st);
int te_unlink(const char* path);

/* Device state. */
int GetCustomizedPartner(void);
int IsSDinserted(void);
void StartPanelProgress(int a, int b);
void PostponeTimedPoweroff(void);

/* Network. */
int QueryNetwork(void);           /* any bit of 0xf00: a connection is up */
int NetConnect(const char* name); /* 0 when the connection is up */
char* get_proxy(void);            /* null when no proxy is set */
void clean_proxy_object(char** proxy);

/* Tasks and events. */
int FindTaskByAppName(const char* path); /* task number, or -1 */
int SendEventTo(int task, int type, int par1, int par2);
void* GetEventHandler(void);
int SendEvent(void* handler, int type, int par1, int par2);
extern const char* LINDEN_SOCIAL_COOKIES_PATH;

/* Resources. GetResource gives the named bitmap of the device's resources,
 * or `deflt`; the bitmap lives as long as the process. SaveBitmap writes a
 * bitmap as a BMP file at `path`: 0, or -1 (nothing is written then). */
void* GetResource(const char* name, void* deflt);
int SaveBitmap(const char* path, void* bitmap);

/* Text case: lower case of a zero-ended UTF-8 text (length -1). >= 0 on
 * success with *out a new text to free(); negative on failure. */
int utf_tolower_ext(char* text, int length, char** out, size_t* out_length);

#ifdef __cplusplus
}
#endif
