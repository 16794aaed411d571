#include "Text/String/Nodes/HXNodeTraits.h"

#include <array>

namespace {

size_t mix(size_t hash, const void *pointer) {
    hash ^= reinterpret_cast<size_t>(pointer) + 0x9e3779b97f4a7c15ull + (hash << 6) + (hash >> 2);
    return hash;
}

size_t hashOf(const HXNodeTraits::Fields &fields) {
    size_t hash = 0;
    hash = mix(hash, fields.markup.get());
    hash = mix(hash, fields.tag.get());
    hash = mix(hash, fields.definition.get());
    hash = mix(hash, fields.headAtom.get());
    hash = mix(hash, fields.tailAtom.get());
    for (const HXTextTagRef &grouping : fields.groupings)
        hash = mix(hash, grouping.get());
    return hash * 0x9e3779b97f4a7c15ull;
}

// The sets last made on this thread, one to a slot: a set that meets another in its slot takes
// its place. A slot holds its set, and with it the objects of its fields, so that no address in
// the table can stand for a new object.
class RecentTraits {
public:
    HXNodeTraitsRef traitsWithFields(HXNodeTraits::Fields &&fields, HXNodeTraitsRef (*make)(
                                                                        HXNodeTraits::Fields &&)) {
        HXNodeTraitsRef &slot = m_slots[hashOf(fields) >> (64 - bits)];
        if (!slot || !slot->fields().isIdenticalTo(fields))
            slot = make(std::move(fields));
        return slot;
    }

private:
    static constexpr int bits = 10;
    std::array<HXNodeTraitsRef, size_t(1) << bits> m_slots;
};

} // namespace

bool HXNodeTraits::Fields::isIdenticalTo(const Fields &other) const {
    if (markup != other.markup || tag != other.tag || bookmark != other.bookmark ||
        definition != other.definition || headAtom != other.headAtom ||
        tailAtom != other.tailAtom || groupings.size() != other.groupings.size())
        return false;
    for (qsizetype i = 0; i < groupings.size(); ++i) {
        if (groupings.at(i) != other.groupings.at(i))
            return false;
    }
    return true;
}

const HXNodeTraits::Fields &HXNodeTraits::noFields() {
    static const Fields none;
    return none;
}

HXNodeTraitsRef HXNodeTraits::traitsWithFields(Fields fields) {
    auto make = [](Fields &&made) { return HXNodeTraitsRef(new HXNodeTraits(std::move(made))); };
    if (fields.bookmark)
        return make(std::move(fields));
    thread_local RecentTraits recent;
    return recent.traitsWithFields(std::move(fields), make);
}

HXNodeTraitsRef HXNodeTraits::traitsWithMarkup(const std::shared_ptr<HXMarkup> &markup) {
    thread_local HXNodeTraitsRef last;
    if (!last || last->fields().markup != markup) {
        Fields fields;
        fields.markup = markup;
        last = traitsWithFields(std::move(fields));
    }
    return last;
}
