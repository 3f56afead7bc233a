/// The standard output.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "ctl/Format.h"

namespace vok::ctl {

/// Keeps the order in which members were added.
using Json = nlohmann::ordered_json;

/// Descriptors 0 to 2 that the caller has closed get something else in their place: a socket that
/// became the standard output would be written to. Reading and writing them fails, as before.
void FillStandardDescriptors();

/// What a terminal, or its absence, makes of the output: colours on a terminal only, and not when
/// NO_COLOR is set or the terminal is dumb; UTF-8 when the locale says so.
Style DetectStyle();

/// Collects, and writes when told. Both throw CFailure when nothing more can be written; its line
/// is empty when the reader has gone.
class COutput {
public:
    explicit COutput(const Style& style) : m_Style(style) {}
    virtual ~COutput() = default;
    COutput(const COutput&) = delete;
    COutput& operator=(const COutput&) = delete;

    const Style& GetStyle() const { return m_Style; }
    void SetStyle(const Style& style) { m_Style = style; }
    /// While what reads the output does not take it, a descriptor that can be read ends the wait:
    /// the rest is dropped. -1: none.
    void SetInterrupt(int nInterrupt) { m_nInterrupt = nInterrupt; }

    void Add(const std::string& strText) { m_strPending += strText; }
    /// A document on lines of its own, indented for people.
    void AddDocument(const Json& json);
    /// One line of a stream.
    void AddLine(const Json& json);

    void Flush();
    /// A line for people that is no part of the output: it goes to the standard error.
    void AddNote(const std::string& strText) const;

protected:
    virtual void Write(const std::string& strText);

private:
    Style m_Style;
    int m_nInterrupt = -1;
    std::string m_strPending;
};

}  // namespace vok::ctl
