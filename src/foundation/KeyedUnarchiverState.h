// The state of one keyed unarchiver, shared by the two files that implement
// it: KeyedUnarchiverState.cpp (slots, frames, classes and the decoding of one
// slot) and KeyedUnarchiver.cpp (the public decoding calls).
#pragma once

#include "foundation/BplistReader.h"
#include "foundation/KeyedCoding.h"

#include <QHash>

#include <array>
#include <memory>
#include <unordered_map>
#include <vector>

namespace brindle {

namespace unarchiving {

// A slot's class: the UID of its class dictionary, or one of these for the
// property-list values stored inline.
using ClassKey = uint32_t;
constexpr ClassKey kInlineString = UINT32_MAX;
constexpr ClassKey kInlineData = UINT32_MAX - 1;
constexpr ClassKey kInlineNumber = UINT32_MAX - 2;
constexpr ClassKey kNoClass = UINT32_MAX - 3;  // `$top`
constexpr uint64_t kMaxObjects = UINT32_MAX - 4;

constexpr uint64_t kIndexedDictionarySize = 16;  // larger objects get a hash index of their keys
constexpr size_t kDenseSlotLimit = size_t{1} << 16;
constexpr int kMaxLoggedProblems = 8;
constexpr int kMaxXmlDepth = 32;  // an archive is at most five containers deep
constexpr qsizetype kMaxClassChain = 64;
constexpr uint64_t kBaseWorkBudget = 1'000'000;
constexpr uint64_t kWorkPerByte = 16;  // real archives need a few units per byte

enum class SlotState : uint8_t { Untouched, InProgress, Done, Failed, Damaged };

struct Slot {
    SlotState state = SlotState::Untouched;
    ClassKey classKey = 0;
    KeyedObjectPtr object;
};

enum class Outcome { Object, Nil, WrongClass, Damaged };

struct Decoded {
    Outcome outcome;
    KeyedObjectPtr object;
};

struct ClassInfo {
    bool valid = false;
    QString name;
    QStringList chain;
};

struct Frame {
    BplistObject dictionary;
    uint32_t classSlot = kNoClass;
    std::unique_ptr<QHash<QString, uint64_t>> index;
};

}  // namespace unarchiving

struct KeyedUnarchiver::State {
    using Slot = unarchiving::Slot;
    using Frame = unarchiving::Frame;
    using ClassInfo = unarchiving::ClassInfo;
    using ClassKey = unarchiving::ClassKey;
    using Outcome = unarchiving::Outcome;
    using Decoded = unarchiving::Decoded;

    QByteArray bytes;
    BplistReader reader;
    BplistObject objects;
    uint32_t objectCount = 0;
    std::vector<Slot> denseSlots;
    std::unordered_map<uint32_t, Slot> sparseSlots;
    std::vector<Frame> frames;
    std::unordered_map<uint32_t, ClassInfo> classes;
    struct Acceptance {
        ClassNamesFn names;
        ClassKey key;
        bool accepted;
    };
    std::vector<Acceptance> acceptances;
    bool valid = false;
    uint64_t problems = 0;
    uint64_t budget = 0;
    bool exhausted = false;
    bool cycleLogged = false;
    // Key strings are shared by every object of a class: the last objects
    // decoded for each of a few references are kept, so that looking a key
    // up in thousands of objects decodes its string once.
    struct KeyCacheEntry {
        uint64_t ref = BplistReader::kNoRef;
        BplistObject object;
    };
    std::array<KeyCacheEntry, 64> keyCache;

    // The object at a key reference, through keyCache.
    BplistObject keyObject(uint64_t ref);

    void problem(const QString& reason, bool prefixed = true);

    bool spend(uint64_t units);

    Slot& slotAt(uint32_t uid);

    // Validates that every key of an object dictionary is a string.
    bool hasStringKeys(const BplistObject& dictionary);

    void buildIndex(Frame& frame);

    // The value reference stored under a raw (already escaped) key, or kNoRef.
    uint64_t lookupRaw(Frame& frame, QStringView key, bool extraDollar);

    // The value reference for a coder key in the current object, or kNoRef.
    uint64_t lookup(QStringView key);

    const ClassInfo& classInfo(uint32_t classSlot);

    QString classNameOf(ClassKey key);

    bool accepts(ClassNamesFn names, ClassKey key);

    void reportWrongClass(ClassNamesFn names, ClassKey key);

    void reportCycle();

    // Opens the object dictionary of a slot: string keys and a valid `$class`.
    bool openObjectFrame(uint32_t uid, const BplistObject& dictionary, Frame& frame);

    KeyedObjectPtr makeInlineValue(const BplistObject& value);

    // A slot's class key; Damaged when the slot holds no object.
    Outcome classOfSlot(uint32_t uid, const BplistObject& value, ClassKey& key, Frame& frame);

    Decoded decodeSlot(KeyedUnarchiver& coder, uint32_t uid, ClassNamesFn names, DecodeFn decode);
};

}  // namespace brindle
