/* Reading statistics of the device: the list of new books of a sync. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

void StatUtils_AddNewBookToStatList(const char* path);
int StatUtils_StatListSize(void);
void* StatUtils_GetStatList(void);
void Stat_NewBooksEventEx(int count, void* list, int source);
void StatUtils_FreeStatList(void);

#ifdef __cplusplus
}
#endif
