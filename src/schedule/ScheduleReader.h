#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

// Reads the schedule file: a sequence of top-level task elements (no root
// element), each with up to four numeric children. The XML parser is kept in
// here; the reader owns the zero-terminated buffer it parses in place.
class ScheduleReader
{
public:
    // Raw child values, already cut to 32 bits; absent children stay empty.
    struct TaskValues {
        std::optional<unsigned int> enabled;
        std::optional<unsigned int> runOnStart;
        std::optional<unsigned int> interval;
        std::optional<unsigned int> retryInterval;
    };

    enum class Result { Parsed, Malformed, TooDeep };

    // The schedule needs two levels; anything far deeper is hostile and the
    // parser would recurse once per level.
    static constexpr int kMaxDepth = 64;

    // Takes the file content up to its first zero byte.
    explicit ScheduleReader(const QByteArray& content);
    ~ScheduleReader();
    ScheduleReader(const ScheduleReader&) = delete;
    ScheduleReader& operator=(const ScheduleReader&) = delete;

    // Parses on the first call and repeats that result later; never throws.
    Result parse() noexcept;

    // The first top-level element named exactly `name` (case-sensitive);
    // nothing when there is none or the document did not parse.
    std::optional<TaskValues> task(const QString& name) const;

    // Deepest element nesting the parser would descend into, counted without
    // recursion; stops counting once above `limit`.
    static int nestingDepth(const char* text, int limit);

    // Decimal text as strtol reads it, cut to 32 bits.
    static unsigned int toNumber(const char* text);

private:
    struct Document;
    std::vector<char> m_buffer;
    std::unique_ptr<Document> m_document;
    std::optional<Result> m_result;
};
