#include <stdlib.h>
#include <string.h>

#include "kest/klib.h"

extern "C" PKLIBCSZLIST KLIBCSzListAlloc(int capacity) {
  if (capacity <= 0) capacity = 1;
  auto* list = static_cast<PKLIBCSZLIST>(calloc(1, sizeof(KLIBCSZLIST)));
  if (!list) {
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->ppszItem = static_cast<char**>(calloc(capacity, sizeof(char*)));
  if (!list->ppszItem) {
    free(list);
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->nAlloc = capacity;
  return list;
}

extern "C" void KLIBCSzListFree(PKLIBCSZLIST list) {
  if (!list) return;
  for (int i = 0; i < list->nItem; ++i) free(list->ppszItem[i]);
  free(list->ppszItem);
  free(list);
}

extern "C" const char* KLIBCSzListGet(PKLIBCSZLIST list, int index) {
  if (!list || index < 0 || index >= list->nItem) return nullptr;
  return list->ppszItem[index];
}

extern "C" int KLIBCSzListPush(PKLIBCSZLIST* plist, const char* item) {
  if (!plist || !*plist || !item) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  PKLIBCSZLIST list = *plist;
  if (list->nItem == list->nAlloc) {
    const int capacity = list->nAlloc * 2;
    auto* items = static_cast<char**>(realloc(list->ppszItem, capacity * sizeof(char*)));
    if (!items) {
      KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
      return -1;
    }
    list->ppszItem = items;
    list->nAlloc = capacity;
  }
  char* copy = strdup(item);
  if (!copy) {
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  list->ppszItem[list->nItem++] = copy;
  return 0;
}
