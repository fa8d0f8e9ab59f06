// Media and projects for the project-file tests: small WAV files decoded into
// real data providers and registered with the shared registry.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>

class VTClip;
class VTDataProvider;
class VTProject;

namespace brindle::test {

// A registered provider of a 16-bit stereo tone of `milliseconds` at 8000 Hz,
// made once per length and seed.
std::shared_ptr<VTDataProvider> registeredTone(int64_t milliseconds, uint32_t seed = 1);

// A project of two tracks whose clips have every field away from its default.
std::shared_ptr<VTProject> sampleProject();

// The whole file, or an empty array.
QByteArray fileBytes(const QString& path);
bool writeBytes(const QString& path, const QByteArray& bytes);

}  // namespace brindle::test
