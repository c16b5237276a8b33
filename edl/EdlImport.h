// The CMX 3600 edit decision list reader as the command uses it: whole files.
#pragma once

#include <string>

#include "host/FrameRate.h"
#include "host/LightweightString.h"
#include "host/Logger.h"
#include "plugin/Results.h"

namespace QvEdl {

struct ReadOptions {
    // The list's rate; none to tell it from the list (see listRate).
    Qv::FrameRate rate = Qv::eFrameRateNone;
};

// Reads a list and imports it: the result as XMLImportFiles gives it. When
// the file cannot be read, `error` says why and the status is 2000
// (unreadable) or 2005 (it holds no event).
XML::ImportResult importEdlFile(const LightweightString<wchar_t>& path, const ReadOptions& options,
                                LoggerHandle log, std::string& error);

// The rate a list is read at, and in words how it was told ("--rate",
// "drop frame", ...). None when the file cannot be read or holds no event.
Qv::FrameRate edlFrameRate(const LightweightString<wchar_t>& path, const ReadOptions& options,
                           std::string& how);

// Whether a file is an edit decision list, by its content: its first line
// that is not blank is a TITLE or FCM line or a numbered event.
bool isEdlDocument(const LightweightString<wchar_t>& path);

}  // namespace QvEdl
