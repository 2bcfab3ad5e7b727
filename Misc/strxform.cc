// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/strxform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "svr4/strftime.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: strxform.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const unsigned FirstOutputSize = 1024;
static const size_t TimeTextSize = 40; // with its terminator
static const char DefaultTimeFormat[] = "%C";
static const char TimeFormatVariable[] = "CFTIME";

EnvironmentValue::EnvironmentValue(const char* dflt, const char* tEnvVar) : EnvVarName(tEnvVar), DefaultValue(dflt) {}

CString EnvironmentValue::GetValue()
{
    if (Value.strlen() == 0) {
        const char* setting = std::getenv(EnvVarName);
        SetValue(setting != nullptr && *setting != '\0' ? CString(setting) : DefaultValue);
    }
    return Value;
}

void EnvironmentValue::SetValue(const CString& v)
{
    Value = v;
    Value.toLiteral();
}

StringTransformer::StringTransformer(const char* vocab, const char* format, const char* formatEnv)
    : StringTransformer(vocab, format, formatEnv, DefaultTimeFormat, TimeFormatVariable)
{
}

StringTransformer::StringTransformer(const char* vocab, const char* format, const char* formatEnv,
                                     const char* timeFormat, const char* timeFormatEnv)
    : Vocabulary(vocab), MetaCharacters(format, formatEnv), TimeMetaCharacters(timeFormat, timeFormatEnv),
      OutputBuffer(FirstOutputSize)
{
    reset();
}

StringTransformer::StringTransformer(const StringTransformer& other)
    : Vocabulary(other.Vocabulary), MetaCharacters(other.MetaCharacters), TimeMetaCharacters(other.TimeMetaCharacters),
      OutputBuffer(other.OutputBuffer)
{
    reset();
}

void StringTransformer::reset()
{
    src = MetaCharacters.GetValue(); // MetaCharacters keeps the text
    dst = 0;
    OutputBuffer.PutDataAt(0, "", 1);
    StartFlag = 1;
}

bool StringTransformer::inVocabulary(char c) const { return std::strchr(Vocabulary, c) != nullptr; }

int StringTransformer::nextCharacter(char& c)
{
    if (StartFlag)
        StartFlag = 0;
    else if (*src != '\0')
        src++;
    for (;;) {
        const size_t literal = std::strcspn(src, "%");
        Output(src, static_cast<unsigned>(literal));
        src += literal;
        if (*src == '%')
            src++;
        if (*src == '\0') {
            Output('\0');
            return 0;
        }
        if (inVocabulary(*src)) {
            c = *src;
            return 1;
        }
        if (*src != '%')
            Output('%');
        Output(*src++);
    }
}

void StringTransformer::Output(char c) { Output(&c, 1); }

void StringTransformer::Output(const CString& c) { Output(c, c.strlen()); }

void StringTransformer::Output(const char* c, unsigned len)
{
    const uint64_t end = uint64_t{dst} + len;
    if (c == nullptr)
        return;
    // A Buffer grows to the size asked for and no further. Without memory for twice the size, the exact one may do.
    const uint64_t doubled = std::min(uint64_t{OutputBuffer.Size()} * 2, uint64_t{UINT32_MAX});
    if (end > OutputBuffer.Size() && end < doubled)
        OutputBuffer.PutDataAt(static_cast<unsigned>(doubled), nullptr, 0);
    OutputBuffer.PutDataAt(dst, c, len);
    if (OutputBuffer.Size() >= end)
        dst = static_cast<uint32_t>(end);
}

void StringTransformer::OutputTime(long theTime)
{
    const time_t seconds = theTime;
    const struct tm* local = std::localtime(&seconds);
    if (local == nullptr)
        return;
    char text[TimeTextSize];
    const size_t len = svr4::strftime(text, sizeof text, TimeMetaCharacters.GetValue(), local);
    Output(text, static_cast<unsigned>(len));
}

void StringTransformer::GetOutput(CString& output)
{
    output = CString(static_cast<const char*>(static_cast<const void*>(OutputBuffer)), dst);
}
