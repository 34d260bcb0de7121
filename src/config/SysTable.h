// Whole-row fetches from the loaded-table segment.
#pragma once

extern "C" {

// Result of the lookups when no row matches.
enum { SQL_NOTFOUND = 1403 };

int SysGetSingleRecord(const char* pcTable, void* pvRow, ...);
int SysGetRecords(int iMode, const char* pcTable, void* pvRows, ...);
const char* getname(const char* pcPath, void* pvUnused, int* piLen);
int getRecord(const char* pcText, int iLen, char* pcOut);

}  // extern "C"
