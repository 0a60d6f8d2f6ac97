#include "schedule/ScheduleReader.h"

#include <rapidxml/rapidxml.hpp>

#include <cstdlib>
#include <cstring>
#include <new>

struct ScheduleReader::Document {
    rapidxml::xml_document<char> xml;
};

namespace
{
using Tables = rapidxml::internal::lookup_tables<0>;

bool isSpace(char c)
{
    return Tables::lookup_whitespace[static_cast<unsigned char>(c)] != 0;
}

bool isNameChar(char c)
{
    return Tables::lookup_node_name[static_cast<unsigned char>(c)] != 0;
}

bool isAttributeNameChar(char c)
{
    return Tables::lookup_attribute_name[static_cast<unsigned char>(c)] != 0;
}

const char* skipSpace(const char* p)
{
    while (isSpace(*p))
        ++p;
    return p;
}

// Past the first occurrence of `terminator`, or nothing when the text ends first.
const char* skipPast(const char* p, const char* terminator)
{
    const char* hit = std::strstr(p, terminator);
    return hit ? hit + std::strlen(terminator) : nullptr;
}

// After "<!DOCTYPE ": up to '>' with bracketed sections skipped the way the
// parser skips them.
const char* skipDoctype(const char* p)
{
    while (*p != '>') {
        if (*p == '\0')
            return nullptr;
        if (*p == '[') {
            ++p;
            int depth = 1;
            while (depth > 0) {
                if (*p == '\0')
                    return nullptr;
                if (*p == '[')
                    ++depth;
                else if (*p == ']')
                    --depth;
                ++p;
            }
            continue;
        }
        ++p;
    }
    return p + 1;
}

// A start tag after its '<': name, attributes, then '>' or "/>". Returns the
// position after the tag, or nothing where the parser would stop with an error.
const char* skipStartTag(const char* p, bool* selfClosing)
{
    const char* name = p;
    while (isNameChar(*p))
        ++p;
    if (p == name)
        return nullptr;
    p = skipSpace(p);
    while (isAttributeNameChar(*p)) {
        while (isAttributeNameChar(*p))
            ++p;
        p = skipSpace(p);
        if (*p != '=')
            return nullptr;
        p = skipSpace(p + 1);
        const char quote = *p;
        if (quote != '\'' && quote != '"')
            return nullptr;
        // Character references never swallow a quote, so the value ends at
        // the next literal one.
        p = std::strchr(p + 1, quote);
        if (!p)
            return nullptr;
        p = skipSpace(p + 1);
    }
    if (*p == '>') {
        *selfClosing = false;
        return p + 1;
    }
    if (p[0] == '/' && p[1] == '>') {
        *selfClosing = true;
        return p + 2;
    }
    return nullptr;
}
} // namespace

ScheduleReader::ScheduleReader(const QByteArray& content)
{
    const int end = content.indexOf('\0');
    const int size = end >= 0 ? end : content.size();
    m_buffer.reserve(static_cast<size_t>(size) + 1);
    m_buffer.assign(content.constData(), content.constData() + size);
    m_buffer.push_back('\0');
}

ScheduleReader::~ScheduleReader() = default;

// Walks the text with the parser's own lexical rules (default flags) and
// counts how deep elements nest. The walk follows the parser exactly up to
// the point where the parser would throw, so the count bounds its recursion.
int ScheduleReader::nestingDepth(const char* text, int limit)
{
    const char* p = text;
    if (static_cast<unsigned char>(p[0]) == 0xEF && static_cast<unsigned char>(p[1]) == 0xBB &&
        static_cast<unsigned char>(p[2]) == 0xBF)
        p += 3;
    int depth = 0;
    int deepest = 0;
    while (p && *p) {
        if (*p != '<') {
            // Text is only allowed inside an element.
            if (depth == 0 && !isSpace(*p))
                break;
            ++p;
            continue;
        }
        const char* q = p + 1;
        switch (*q) {
        case '/':
            if (depth == 0)
                return deepest;
            ++q;
            while (isNameChar(*q))
                ++q;
            q = skipSpace(q);
            if (*q != '>')
                return deepest;
            --depth;
            p = q + 1;
            break;
        case '?':
            p = skipPast(q + 1, "?>");
            break;
        case '!':
            if (q[1] == '-' && q[2] == '-')
                p = skipPast(q + 3, "-->");
            else if (std::strncmp(q + 1, "[CDATA[", 7) == 0)
                p = skipPast(q + 8, "]]>");
            else if (std::strncmp(q + 1, "DOCTYPE", 7) == 0 && isSpace(q[8]))
                p = skipDoctype(q + 9);
            else {
                p = std::strchr(q + 1, '>');
                if (p)
                    ++p;
            }
            break;
        default: {
            bool selfClosing = false;
            p = skipStartTag(q, &selfClosing);
            if (p && !selfClosing) {
                ++depth;
                if (depth > deepest)
                    deepest = depth;
                if (deepest > limit)
                    return deepest;
            }
            break;
        }
        }
    }
    return deepest;
}

unsigned int ScheduleReader::toNumber(const char* text)
{
    const long value = std::strtol(text, nullptr, 10);
    return static_cast<unsigned int>(static_cast<unsigned long>(value));
}

ScheduleReader::Result ScheduleReader::parse() noexcept
{
    // Parsing in place rewrites the buffer, so it happens once.
    if (m_result)
        return *m_result;
    // An empty download (or one that is only a zero byte) is no schedule at
    // all; the parser itself would accept it as an empty document.
    if (m_buffer.empty() || m_buffer.front() == '\0') {
        m_result = Result::Malformed;
        return *m_result;
    }
    if (nestingDepth(m_buffer.data(), kMaxDepth) > kMaxDepth) {
        m_result = Result::TooDeep;
        return *m_result;
    }
    try {
        m_document = std::make_unique<Document>();
        m_document->xml.parse<0>(m_buffer.data());
        m_result = Result::Parsed;
    } catch (...) {
        // rapidxml::parse_error, or memory running out on a huge document.
        m_document.reset();
        m_result = Result::Malformed;
    }
    return *m_result;
}

std::optional<ScheduleReader::TaskValues> ScheduleReader::task(const QString& name) const
{
    if (m_result != Result::Parsed || !m_document)
        return std::nullopt;
    const QByteArray key = name.toUtf8();
    const rapidxml::xml_node<char>* element =
        m_document->xml.first_node(key.constData(), static_cast<size_t>(key.size()), true);
    if (!element)
        return std::nullopt;
    auto child = [element](const char* childName) -> std::optional<unsigned int> {
        const rapidxml::xml_node<char>* node = element->first_node(childName, 0, true);
        if (!node)
            return std::nullopt;
        return toNumber(node->value());
    };
    TaskValues values;
    values.enabled = child("Enabled");
    values.runOnStart = child("Run_on_Start");
    values.interval = child("Interval");
    values.retryInterval = child("Retry_Interval");
    return values;
}
