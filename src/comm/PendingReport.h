#pragma once

#include "comm/ApiManager.h"

#include <QByteArray>
#include <QString>

#include <optional>

// The on-disk form of a post kept for later. The first four bytes are the
// task number as zero-padded decimal text (what the pending-report reader
// has always read); the rest of the first line is the header replay needs;
// the body follows exactly as it went out:
//
//   0003 EDR-PENDING/1 kind=snapshot route=5 mode=3 created=1732280000000 length=5120\n
//   {    "processes": [ ... ]}
//
// kind is snapshot (one per task, newest wins) or result (carries a request
// id, kept until delivered); route is the API route number; mode the body
// mode; created milliseconds since the epoch; length the body's byte count.
class PendingReport
{
public:
    enum class Kind { Snapshot, Result };

    struct Header {
        int task = 0;
        Kind kind = Kind::Snapshot;
        int route = 0;
        int mode = 3;
        qint64 createdMs = 0;
        qint64 length = 0;
    };

    // A header line never needs more than this.
    static constexpr int kMaxHeaderBytes = 256;

    // The task and kind a route's posts are kept under; nullopt for routes
    // that are never kept (registration, configuration).
    static std::optional<Header> forRoute(API_NAME route);

    static QByteArray encodeHeader(const Header& header);
    // Parses the header line at the start of data; headerBytes receives its
    // length including the line feed. nullopt for anything foreign.
    static std::optional<Header> parseHeader(const QByteArray& data, int* headerBytes = nullptr);

    static const char* kindName(Kind kind);
};
