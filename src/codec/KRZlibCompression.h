// zlib compression of whole byte buffers.
#pragma once

#include <QByteArray>

#include <optional>

class KRZlibCompression {
public:
    // A zlib stream of `data`.
    static QByteArray zlibCompressionCompress(const QByteArray& data);
    // The bytes of a zlib stream; nullopt when the stream is damaged,
    // truncated, followed by garbage, or would inflate beyond `maximumSize`.
    static std::optional<QByteArray> zlibCompressionUncompress(const QByteArray& data,
                                                               qsizetype maximumSize = 256 * 1024 * 1024);
    // The run-length coded stream (zlib level 1, Z_RLE) that compression
    // gives a buffer in which many bytes repeat.
    static QByteArray runLengthCoded(const QByteArray& data);

private:
    static QByteArray deflated(const QByteArray& data, int level, int strategy);
};
