// Readers of sys.cfg (the CommCfg block and the four resource sections), the
// single-value lookups in the loaded-table segment, and small list routines.

#include "config/SysRscApp.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>

#include "base/SysGlobals.h"
#include "config/CfgSource.h"
#include "config/SysTable.h"
#include "config/TableLookup.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"

namespace {

using comp::cfg::CfgReading;
using comp::cfg::CfgSource;

constexpr int kCfgBufLen = 20480;      // how much of sys.cfg the key reader sees
constexpr int kValueBufLen = 128;      // GetValue allows 64 characters
constexpr int kLineLen = 128;          // a section line is shorter than this
constexpr int kListCopyLen = 1024;     // getValueByKey works on a copy this long
constexpr int kItemListCopyLen = 2048; // findSubString likewise
// Consecutive failed line reads tolerated while looking for a section header
// (each over-long line costs one per 128 bytes); a file that keeps failing
// beyond this is not going to show the header.
constexpr int kMaxHeaderReadFailures = 1024;

const char* Text(const char* pc) { return pc != nullptr ? pc : ""; }

// ---------------------------------------------------------------------------
// CommCfg
// ---------------------------------------------------------------------------

struct CommKey {
    const char* pcKey;
    int32_t CommCfg::*pField;
};
constexpr CommKey kCommKeys[] = {
    {"LOGONTIMELIMIT", &CommCfg::iLogonTimeLimit},  {"COMLOGONTIMELIMIT", &CommCfg::iComLogonTimeLimit},
    {"INQUERYTIME", &CommCfg::iInqueryTime},        {"INQUERYCOUNT", &CommCfg::iInqueryCount},
    {"SHUTDOWNTIME", &CommCfg::iShutdownTime},      {"MSGQUEUECOUNT", &CommCfg::iMsgQueueCount},
    {"SEMPHORECOUNT", &CommCfg::iSemphoreCount},    {"SHAREMEMCOUNT", &CommCfg::iShareMemCount},
    {"PROCNAMECOUNT", &CommCfg::iProcNameCount},
};

// Number of bytes read into pcBuf (NUL-terminated, kCfgBufLen + 1 bytes), or
// a value below 1 for an empty or unreadable file.
int ReadWholeCfg(const CfgReading& file, char* pcBuf) {
    std::memset(pcBuf, 0, kCfgBufLen + 1);
    return comp::cfg::ReadBufFrom(file.source(), pcBuf, -1);
}

bool GetIntValue(const char* pcBuf, int iLen, const char* pcKey, int32_t* piOut) {
    char caValue[kValueBufLen] = {};
    if (GetValue(pcBuf, iLen, pcKey, static_cast<int>(std::strlen(pcKey)), caValue) < 0) return false;
    *piOut = std::atoi(caValue);
    return true;
}

// ---------------------------------------------------------------------------
// Sections
// ---------------------------------------------------------------------------

enum class SectionEnd { kOk, kOpenFail, kNoHeader, kBadLine, kBadEntry };

// The next blank-separated word (as "%s" of scanf takes it).
bool NextWord(const char*& p, std::string_view* pWord) {
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    const char* pcStart = p;
    while (*p != '\0' && *p != ' ' && !(*p >= '\t' && *p <= '\r')) ++p;
    *pWord = std::string_view(pcStart, static_cast<std::size_t>(p - pcStart));
    return !pWord->empty();
}

// The next decimal number (as "%d" of scanf takes it), clamped to 32 bits.
bool NextInt(const char*& p, int32_t* piOut) {
    char* pcEnd = nullptr;
    long lValue = std::strtol(p, &pcEnd, 10);
    if (pcEnd == p) return false;
    p = pcEnd;
    if (lValue > INT32_MAX) lValue = INT32_MAX;
    if (lValue < INT32_MIN) lValue = INT32_MIN;
    *piOut = static_cast<int32_t>(lValue);
    return true;
}

// A word into a name field of its own, cut to fit.
template <std::size_t N>
void PutName(char (&caField)[N], std::string_view word) {
    std::size_t n = word.size() < N - 1 ? word.size() : N - 1;
    std::memcpy(caField, word.data(), n);
    caField[n] = '\0';
}

bool ParseQueue(const char* pcLine, QueueCfgEntry* pst) {
    QueueCfgEntry st{};
    std::string_view word;
    const char* p = pcLine;
    if (NextWord(p, &word)) {
        PutName(st.caName, word);
        (void)(NextInt(p, &st.iIndex) && NextInt(p, &st.iKey));
    }
    *pst = st;
    return st.iIndex >= 1 && st.iKey >= 1;
}

// The semaphore count is taken when present but not checked.
bool ParseSem(const char* pcLine, SemCfgEntry* pst) {
    SemCfgEntry st{};
    std::string_view word;
    const char* p = pcLine;
    if (NextWord(p, &word)) {
        PutName(st.caName, word);
        (void)(NextInt(p, &st.iIndex) && NextInt(p, &st.iKey) && NextInt(p, &st.iNum));
    }
    *pst = st;
    return st.iIndex >= 1 && st.iKey >= 1;
}

bool ParseShm(const char* pcLine, ShmCfgEntry* pst) {
    ShmCfgEntry st{};
    std::string_view word;
    const char* p = pcLine;
    if (NextWord(p, &word)) {
        PutName(st.caName, word);
        (void)(NextInt(p, &st.iIndex) && NextInt(p, &st.iKey) && NextInt(p, &st.iSize));
    }
    *pst = st;
    return st.iIndex >= 1 && st.iKey >= 1 && st.iSize >= 1;
}

// The fields of a process entry follow each other without gaps: a word
// longer than its field runs on into the next ones, and the next word then
// overwrites what it covers. The run ends at the end of the record.
void PutProcWord(ProcCfgEntry* pst, std::size_t iOff, std::string_view word) {
    auto* pcRec = reinterpret_cast<char*>(pst);
    std::size_t iRoom = sizeof(ProcCfgEntry) - iOff - 1;
    std::size_t n = word.size() < iRoom ? word.size() : iRoom;
    std::memcpy(pcRec + iOff, word.data(), n);
    pcRec[iOff + n] = '\0';
}

bool ParseProc(const char* pcLine, ProcCfgEntry* pst) {
    ProcCfgEntry st{};
    std::string_view word;
    const char* p = pcLine;
    bool bNumber = false;
    if (NextWord(p, &word)) {
        PutProcWord(&st, offsetof(ProcCfgEntry, caName), word);
        if (NextWord(p, &word)) {
            PutProcWord(&st, offsetof(ProcCfgEntry, caCode), word);
            bNumber = NextInt(p, &st.iNumber);
            if (bNumber && NextWord(p, &word)) {
                PutProcWord(&st, offsetof(ProcCfgEntry, caCode2), word);
                if (NextWord(p, &word)) PutProcWord(&st, offsetof(ProcCfgEntry, caText), word);
            }
        }
    }
    *pst = st;
    return bNumber && st.iNumber >= 0;
}

// Finds the header line, then takes iCount entry lines ("#" in column 1 is a
// comment). A header line may carry text after the header. With bStrictHeader
// a failed line read ends the header search; otherwise over-long lines before
// the header are passed over. The end of the file always ends it.
template <class Entry, class Parse>
SectionEnd ReadSection(const CfgSource& cfg, std::string_view header, bool bStrictHeader, int iCount,
                       Entry* pstEntries, Parse parse) {
    if (iCount > 0 && pstEntries == nullptr) return SectionEnd::kBadEntry;
    CfgReading file(cfg);
    if (!file.ok()) return SectionEnd::kOpenFail;

    // One byte more than a line can take, so that the text always ends.
    char caLine[kLineLen + 1];
    int iFailures = 0;
    for (;;) {
        std::memset(caLine, 0, sizeof caLine);
        int iRet = comp::cfg::ReadLineFrom(file.source(), caLine);
        if (iRet == -2 || (iRet < 0 && bStrictHeader)) return SectionEnd::kNoHeader;
        if (std::memcmp(caLine, header.data(), header.size()) == 0) break;
        if (iRet >= 0)
            iFailures = 0;
        else if (++iFailures > kMaxHeaderReadFailures)
            return SectionEnd::kNoHeader;
    }

    for (int n = 0; n < iCount;) {
        std::memset(caLine, 0, sizeof caLine);
        int iRet = comp::cfg::ReadLineFrom(file.source(), caLine);
        if (iRet < 1) return SectionEnd::kBadLine;
        if (caLine[0] == '#') continue;
        if (!parse(caLine, &pstEntries[n])) return SectionEnd::kBadEntry;
        ++n;
    }
    return SectionEnd::kOk;
}

void ReportOpenFail(const char* pcPath) {
    COMP_ERRLOG("[%s][%d]pid[%d]File Open Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
}

}  // namespace

bool SysCfgPath(char* pcOut, int iOutLen) {
    const char* pcRunDir = std::getenv("RUNDIR");
    if (pcOut == nullptr || iOutLen <= 0 || pcRunDir == nullptr) return false;
    const int iLen = std::snprintf(pcOut, static_cast<size_t>(iOutLen), "%s/etc/sys.cfg", pcRunDir);
    return iLen >= 0 && iLen < iOutLen;
}

// Key and size of the [SHMRESOURCE] entry at the 1-based position.
bool SysShmEntryAt(int iPosition, int iCount, key_t* pKey, int* piSize) {
    if (iCount < 1 || iPosition < 1 || iPosition > iCount) {
        COMP_ERRLOG("[%s,%d]shared memory position %d not in 1..%d", SRC_NAME, __LINE__, iPosition, iCount);
        return false;
    }
    char caPath[256];
    if (!SysCfgPath(caPath, sizeof caPath)) {
        COMP_ERRLOG("[%s,%d]sys.cfg path too long or RUNDIR unset", SRC_NAME, __LINE__);
        return false;
    }
    std::unique_ptr<ShmCfgEntry[]> entries(new (std::nothrow) ShmCfgEntry[static_cast<size_t>(iCount)]());
    if (!entries) {
        COMP_ERRLOG("[%s] malloc err [%d] ", SRC_NAME, errno);
        return false;
    }
    if (GetShmConfigValue(iCount, caPath, entries.get()) != 0) {
        COMP_ERRLOG("[%s] get share memory cfg err [%d] ", SRC_NAME, errno);
        return false;
    }
    *pKey = entries[iPosition - 1].iKey;
    *piSize = entries[iPosition - 1].iSize;
    return true;
}

namespace comp::cfg {

// ---------------------------------------------------------------------------
// CommCfg
// ---------------------------------------------------------------------------

int CommConfig(const CfgSource& cfg, CommCfg* pstCfg) {
    const char* pcPath = cfg.name();
    CfgReading file(cfg);
    if (!file.ok() || pstCfg == nullptr) {
        COMP_ERRLOG("[%s][%d]pid[%d] File Open Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    }
    char caBuf[kCfgBufLen + 1];
    int iLen = ReadWholeCfg(file, caBuf);
    if (iLen < 1) {
        COMP_ERRLOG("[%s][%d]pid[%d] File Read Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    }
    *pstCfg = CommCfg{};
    for (const CommKey& stKey : kCommKeys) {
        if (GetIntValue(caBuf, iLen, stKey.pcKey, &(pstCfg->*stKey.pField))) continue;
        if (stKey.pField == &CommCfg::iComLogonTimeLimit)
            COMP_ERRLOG("[%s][%d]pid[%d] File[%s] GetValue Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath),
                        stKey.pcKey);
        else
            COMP_ERRLOG("[%s][%d]pid[%d]File[%s] GetValue Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath),
                        stKey.pcKey);
        return -1;
    }
    return 0;
}

int AppCommConfig(const CfgSource& cfg, int* piCount) {
    const char* pcPath = cfg.name();
    CfgReading file(cfg);
    if (!file.ok() || piCount == nullptr) {
        ReportOpenFail(pcPath);
        return -1;
    }
    char caBuf[kCfgBufLen + 1];
    int iLen = ReadWholeCfg(file, caBuf);
    if (iLen < 1) {
        COMP_ERRLOG("[%s][%d]pid[%d]File Read Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    }
    int32_t iCount = 0;
    if (!GetIntValue(caBuf, iLen, "PROCNAMECOUNT", &iCount)) {
        COMP_ERRLOG("[%s][%d]pid[%d]File[%s] GetValue Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath),
                    "PROCNAMECOUNT");
        return -1;
    }
    *piCount = iCount;
    return 0;
}

// ---------------------------------------------------------------------------
// Sections
// ---------------------------------------------------------------------------

int QueueConfig(const CfgSource& cfg, int iCount, QueueCfgEntry* pstEntries) {
    const char* pcPath = cfg.name();
    switch (ReadSection(cfg, "[QRESOURCE]", false, iCount, pstEntries, ParseQueue)) {
    case SectionEnd::kOk:
        return 0;
    case SectionEnd::kOpenFail:
        ReportOpenFail(pcPath);
        return -1;
    default:
        COMP_ERRLOG("[%s][%d]pid[%d]File Get Queue Cfg Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    }
}

int SemConfig(const CfgSource& cfg, int iCount, SemCfgEntry* pstEntries) {
    const char* pcPath = cfg.name();
    switch (ReadSection(cfg, "[SEMRESOURCE]", true, iCount, pstEntries, ParseSem)) {
    case SectionEnd::kOk:
        return 0;
    case SectionEnd::kOpenFail:
        ReportOpenFail(pcPath);
        return -1;
    case SectionEnd::kNoHeader:
        COMP_ERRLOG("[%s][%d]pid[%d]File Get Sem Cfg Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    case SectionEnd::kBadLine:
        COMP_ERRLOG("[%s][%d]pid[%d]File Get SemCfg Fail[%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    case SectionEnd::kBadEntry:
        break;
    }
    // This text has always shown the pid through a text conversion.
    char caPid[16];
    std::snprintf(caPid, sizeof caPid, "%d", static_cast<int>(getpid()));
    COMP_ERRLOG("[%s][%d]pid[%s]File Get SemCfg Fail[%s]", SRC_NAME, __LINE__, caPid, Text(pcPath));
    return -1;
}

int ShmConfig(const CfgSource& cfg, int iCount, ShmCfgEntry* pstEntries) {
    const char* pcPath = cfg.name();
    switch (ReadSection(cfg, "[SHMRESOURCE]", false, iCount, pstEntries, ParseShm)) {
    case SectionEnd::kOk:
        return 0;
    case SectionEnd::kOpenFail:
        ReportOpenFail(pcPath);
        return -1;
    default:
        COMP_ERRLOG("[%s][%d]pid[%d]File Get Shm Cfg Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    }
}

int ProcConfig(const CfgSource& cfg, int iCount, ProcCfgEntry* pstEntries) {
    const char* pcPath = cfg.name();
    switch (ReadSection(cfg, "[PROCESS]", false, iCount, pstEntries, ParseProc)) {
    case SectionEnd::kOk:
        return 0;
    case SectionEnd::kOpenFail:
        ReportOpenFail(pcPath);
        return -1;
    default:
        COMP_ERRLOG("[%s][%d]pid[%d]File Get Proc Cfg Fail [%s]", SRC_NAME, __LINE__, getpid(), Text(pcPath));
        return -1;
    }
}

}  // namespace comp::cfg

extern "C" {

// ---------------------------------------------------------------------------
// sys.cfg readers on a file
// ---------------------------------------------------------------------------

int GetCommConfigValue(const char* pcPath, CommCfg* pstCfg) {
    return comp::cfg::CommConfig(CfgSource(pcPath), pstCfg);
}

int GetAppCommConfigValue(const char* pcPath, int* piCount) {
    return comp::cfg::AppCommConfig(CfgSource(pcPath), piCount);
}

int GetQueueConfigValue(int iCount, const char* pcPath, QueueCfgEntry* pstEntries) {
    return comp::cfg::QueueConfig(CfgSource(pcPath), iCount, pstEntries);
}

int GetSemConfigValue(int iCount, const char* pcPath, SemCfgEntry* pstEntries) {
    return comp::cfg::SemConfig(CfgSource(pcPath), iCount, pstEntries);
}

int GetShmConfigValue(int iCount, const char* pcPath, ShmCfgEntry* pstEntries) {
    return comp::cfg::ShmConfig(CfgSource(pcPath), iCount, pstEntries);
}

int GetProcConfigValue(int iCount, const char* pcPath, ProcCfgEntry* pstEntries) {
    return comp::cfg::ProcConfig(CfgSource(pcPath), iCount, pstEntries);
}

// ---------------------------------------------------------------------------
// Table lookups
// ---------------------------------------------------------------------------

int SysGetValueByTableKey(const char* pcTable, const char* pcField, char* pcValue, ...) {
    using namespace comp::table;
    if (pcTable == nullptr || *pcTable == '\0' || pcField == nullptr || *pcField == '\0' || pcValue == nullptr) {
        wlog("parameter error.");
        return -1;
    }
    char caTable[kNameBufLen];
    char caField[kNameBufLen];
    CopyUpper(caTable, sizeof caTable, pcTable);
    CopyUpper(caField, sizeof caField, pcField);

    ArgWords stWords;
    va_list ap;
    va_start(ap, pcValue);
    DrainArgs(ap, &stWords);
    va_end(ap);
    KeyList stKeys;
    if (CollectKeyList(SRC_NAME, caTable, {stWords.pcaWord, static_cast<std::size_t>(stWords.iCount)}, false,
                       &stKeys) != 0)
        return -1;

    std::span<const TableRecord> seg;
    if (!AttachedTable(SRC_NAME, &seg)) return -1;
    const TableRecord* pstRow = FindRow(seg, caTable, stKeys);
    if (pstRow == nullptr) {
        if (std::strcmp(caTable, "VARSTABLE") == 0)
            std::snprintf(g_caMsg, sizeof g_caMsg, "There is no such key-value in sys.cfg");
        else
            std::snprintf(g_caMsg, sizeof g_caMsg, "There is no such key-value in table [%s]", caTable);
        return SQL_NOTFOUND;
    }
    return getValueByKeyNew(pstRow, caField, pcValue) == 0 ? 0 : SQL_NOTFOUND;
}

int SysGetenvByName(const char* pcName, char* pcValue) {
    if (pcName == nullptr || *pcName == '\0') {
        COMP_ERRLOG("[%s][%d]Parameter error[%s]", SRC_NAME, __LINE__, Text(pcName));
        return -1;
    }
    int iRet = SysGetValueByTableKey("VARSTABLE", "VARSVALUE", pcValue, "VARSNAME", pcName, PARA_END);
    if (iRet < 0) wlog("SysGetValueByTableKey error");
    return iRet;
}

int getValueByKeyNew(const TableRecord* pstRec, const char* pcField, char* pcValue) {
    using namespace comp::table;
    if (pstRec == nullptr || pcField == nullptr || pcValue == nullptr || !IsRecordSane(*pstRec)) return -1;
    for (int i = 0; i < pstRec->iFieldCount; ++i) {
        std::string_view name, value;
        if (!FieldName(*pstRec, i, &name) || name != pcField || !FieldValue(*pstRec, i, &value)) continue;
        std::memcpy(pcValue, value.data(), value.size());
        pcValue[value.size()] = '\0';
        return 0;
    }
    return -1;
}

int findSubStringNew(const TableRecord* pstRec, const char* pcField, const char* pcText) {
    using namespace comp::table;
    if (pstRec == nullptr || pcField == nullptr || pcText == nullptr || !IsRecordSane(*pstRec)) return -1;
    for (int i = 0; i < pstRec->iFieldCount; ++i) {
        std::string_view name, value;
        if (FieldName(*pstRec, i, &name) && name == pcField && FieldValue(*pstRec, i, &value) && value == pcText)
            return 0;
    }
    return -1;
}

// ---------------------------------------------------------------------------
// ";"-ended lists
// ---------------------------------------------------------------------------

int getValueByKey(const char* pcList, const char* pcKey, char* pcValue) {
    if (pcList == nullptr || pcKey == nullptr || pcValue == nullptr) return -1;
    char caCopy[kListCopyLen];
    std::snprintf(caCopy, sizeof caCopy, "%s", pcList);
    std::string_view key(pcKey);
    std::string_view rest(caCopy);
    for (std::size_t iSemi; (iSemi = rest.find(';')) != std::string_view::npos; rest.remove_prefix(iSemi + 1)) {
        std::string_view segment = rest.substr(0, iSemi);
        if (segment.substr(0, key.size()) != key) continue;
        segment.remove_prefix(key.size());
        std::memcpy(pcValue, segment.data(), segment.size());
        pcValue[segment.size()] = '\0';
        return 0;
    }
    COMP_ERRLOG("not found key '%s' in '%s'\n", pcKey, pcList);
    return -1;
}

int findSubString(const char* pcList, const char* pcItem) {
    if (pcList == nullptr || pcItem == nullptr) return -1;
    char caCopy[kItemListCopyLen];
    std::snprintf(caCopy, sizeof caCopy, "%s", pcList);
    std::string_view rest(caCopy);
    for (std::size_t iSemi; (iSemi = rest.find(';')) != std::string_view::npos; rest.remove_prefix(iSemi + 1))
        if (rest.substr(0, iSemi) == pcItem) return 0;
    return -1;
}

int findSubString2(const char* pcBuf, const char* pcText, int iLen) {
    if (pcBuf == nullptr || pcText == nullptr) return -1;
    const char* pcHit = std::strstr(pcBuf, pcText);
    return (pcHit != nullptr && pcHit - pcBuf < iLen) ? 0 : -1;
}

int getRandom(int iN) {
    if (iN < 1) {
        COMP_ERRLOG("[%s,%d]getRandom range error[%d]", SRC_NAME, __LINE__, iN);
        return -1;
    }
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    return std::rand() % iN + 1;
}

}  // extern "C"
