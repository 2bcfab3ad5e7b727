// SPDX-License-Identifier: BSD-2-Clause
// Settings from the environment, and texts expanded from templates with % directives.
#ifndef MISC_STRXFORM_H
#define MISC_STRXFORM_H

#include <cstdint>

#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

/// A setting that comes from an environment variable when that is set and not empty, and from a default otherwise.
/// Backslash escapes in either are resolved (see CString::escape_to_literal). The environment is looked at when the
/// value is first asked for, and not again once there is a value.
class ZELOO_API EnvironmentValue {
public:
    /// The default and the name of the variable; null stands for the empty text. Does not look at the environment.
    EnvironmentValue(const char* dflt, const char* tEnvVar);
    /// A copy has the value too, when there is one.
    EnvironmentValue(const EnvironmentValue& other) = default;
    /// Takes over default, name of the variable, and the value when there is one.
    EnvironmentValue& operator=(const EnvironmentValue& other) = default;

    /// The value. One that is empty is looked up again at the next call.
    CString GetValue();
    /// Makes `v`, with its escapes resolved, the value in place of what the environment says.
    void SetValue(const CString& v);

private:
    CString Value; // empty until first asked for
    CString EnvVarName;
    CString DefaultValue;
};

/// Expands a template, in which a `%` and one character are a directive. Characters without a `%` are copied to the
/// output. A directive whose character is in the vocabulary is handed to the caller, who writes what it stands for:
///
///     transformer.reset();
///     for (char c; transformer.nextCharacter(c);)
///         transformer.Output(c == 'n' ? name : number);
///     transformer.GetOutput(text);
///
/// `%%` stands for one `%`, unless `%` is in the vocabulary. A `%` before any other character is copied together with
/// it; at the end of the template it is dropped.
///
/// The template and the time format come from the environment (see EnvironmentValue). The template is settled by the
/// constructor, the time format by the first OutputTime. The expansion of n characters costs O(n), and may have up to
/// 4,294,967,295 of them, terminator included; what does not fit, or finds no memory, is left out.
class ZELOO_API StringTransformer {
public:
    /// `vocab` holds the directive characters. `format` is the template unless the environment variable `formatEnv`
    /// has one. The time format is "%C", the date and time as date(1) prints them, unless the variable CFTIME has
    /// one. Null stands for the empty text.
    StringTransformer(const char* vocab, const char* format, const char* formatEnv);
    /// The same with another default for the time format and another variable.
    StringTransformer(const char* vocab, const char* format, const char* formatEnv, const char* timeFormat,
                      const char* timeFormatEnv);
    /// The same vocabulary, template and time format, at the start of the expansion.
    StringTransformer(const StringTransformer& other);
    StringTransformer& operator=(const StringTransformer&) = delete;

    /// Goes back to the start of the template and empties the output.
    void reset();
    /// Continues the expansion up to the next directive of the vocabulary and returns 1, with its character in `c`. At
    /// the end of the template terminates the output and returns 0, now and at every call until reset(); `c` stays.
    int nextCharacter(char& c);

    /// Appends a character to the output. A zero byte ends the output, as the end of the template does, here and in the
    /// other forms: what is written later does not show.
    void Output(char c);
    /// Appends a text to the output.
    void Output(const CString& c);
    /// Appends `len` bytes to the output; a null `c` appends nothing.
    void Output(const char* c, unsigned len);
    /// Appends a time, in seconds since the epoch, as local time in the time format (see strftime(3)). A text that
    /// does not fit 40 characters with its terminator is left out, and so is a year beyond the range of `int`.
    void OutputTime(long theTime);
    /// Sets `output` to the expansion so far.
    void GetOutput(CString& output);

private:
    bool inVocabulary(char c) const;

    int32_t StartFlag; // 1 after reset() until nextCharacter is called
    uint32_t dst;      // where the next character goes in OutputBuffer
    const char* src;   // the place in the text of MetaCharacters; at the directive that was handed out last
    CString Vocabulary;
    EnvironmentValue MetaCharacters;     // the template
    EnvironmentValue TimeMetaCharacters; // the time format
    Buffer OutputBuffer;                 // the first `dst` bytes are in use, or one zero byte
};

#endif
