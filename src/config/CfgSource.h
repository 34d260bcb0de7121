// The configuration file library on a byte source: the whole-file and
// line readers under ReadBuf and ReadFileLine, and sys.cfg as its readers
// take it, a file opened afresh by each or a text held in memory (the unit
// tests and the fuzz targets read it there).
#pragma once

#include <string_view>

#include "base/ByteSource.h"

namespace comp::cfg {

// A descriptor read with read(), retried after interruptions: all bytes
// asked for, fewer at the end of the file, -1 on an error.
ByteSource FileSource(int iFd);

// ReadBuf and ReadFileLine on any source.
int ReadBufFrom(const ByteSource& src, char* pcBuf, int iMax);
int ReadLineFrom(const ByteSource& src, char* pcLine);

// Where a reader finds sys.cfg: a path, or the text itself with a name for
// the log lines.
class CfgSource {
public:
    explicit CfgSource(const char* pcPath) : pcName_(pcPath) {}
    CfgSource(std::string_view text, const char* pcName) : pcName_(pcName), text_(text), bMemory_(true) {}

    // The path or the name; may be null.
    const char* name() const { return pcName_; }

private:
    friend class CfgReading;
    const char* pcName_;
    std::string_view text_;
    bool bMemory_ = false;
};

// One reading of a CfgSource from its start: the file opened with InitFile
// and closed with CloseFile at the end of the reading, or the text.
class CfgReading {
public:
    explicit CfgReading(const CfgSource& cfg);
    ~CfgReading();
    CfgReading(const CfgReading&) = delete;
    CfgReading& operator=(const CfgReading&) = delete;

    // False when the file could not be opened (InitFile has logged it).
    bool ok() const { return bOk_; }
    const ByteSource& source() const { return src_; }

private:
    int iFd_ = -1;
    MemorySource mem_;
    ByteSource src_{};
    bool bOk_ = false;
};

}  // namespace comp::cfg
