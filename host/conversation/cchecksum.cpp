#include "host/conversation/cchecksum.h"

#define XXH_INLINE_ALL // nothing to install where it runs
#include <xxhash.h>

struct CCheckSum::State
{
    XXH3_state_t value; // wants an alignment that `new` knows
};

CCheckSum::CCheckSum() : state(std::make_unique<State>())
{
    XXH3_128bits_reset(&state->value);
}

CCheckSum::~CCheckSum() = default;
CCheckSum::CCheckSum(CCheckSum &&other) noexcept = default;

void CCheckSum::add(std::string_view bytes)
{
    XXH3_128bits_update(&state->value, bytes.data(), bytes.size());
}

QByteArray CCheckSum::soFar() const
{
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(&state->value));
    static_assert(sizeof(canonical) == size);
    return QByteArray(reinterpret_cast<const char *>(canonical.digest), size);
}
