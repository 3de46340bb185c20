// XXH3-128 of a stream of bytes: whether a message is the same at both ends.
//
// It tells accidents, not forgeries: against these stands TLS. SHA-256 costs ten times as much, so only the
// receiver makes it, for people and for what is stored.
#pragma once

#include <QByteArray>

#include <memory>
#include <string_view>

class CCheckSum
{
public:
    static constexpr int size = 16; // bytes

    CCheckSum();
    ~CCheckSum();
    CCheckSum(CCheckSum &&other) noexcept;

    void add(std::string_view bytes);

    /// @return of what has been added so far, in the canonical order of bytes
    QByteArray soFar() const;

private:
    struct State;
    std::unique_ptr<State> state;
};
