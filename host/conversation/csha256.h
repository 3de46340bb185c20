// SHA-256 of a stream of bytes, by OpenSSL: Qt's own would be slower than the network.
#pragma once

#include <QByteArray>

#include <memory>
#include <string_view>

struct evp_md_ctx_st;

class CSha256
{
public:
    CSha256();

    void add(std::string_view bytes);

    /// @return the digest of what has been added so far, 32 bytes
    QByteArray soFar() const;

    /// @return the digest, 32 bytes; the object starts anew
    QByteArray take();

private:
    struct Free
    {
        void operator()(evp_md_ctx_st *owned) const;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context;
};
