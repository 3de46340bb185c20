#include "host/conversation/csha256.h"

#include <openssl/evp.h>

void CSha256::Free::operator()(evp_md_ctx_st *owned) const
{
    EVP_MD_CTX_free(owned);
}

CSha256::CSha256() : context(EVP_MD_CTX_new())
{
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
}

void CSha256::add(std::string_view bytes)
{
    EVP_DigestUpdate(context.get(), bytes.data(), bytes.size());
}

QByteArray CSha256::soFar() const
{
    CSha256 copy;
    EVP_MD_CTX_copy_ex(copy.context.get(), context.get());
    return copy.take();
}

QByteArray CSha256::take()
{
    QByteArray digest(EVP_MAX_MD_SIZE, '\0');
    unsigned int size = 0;
    EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char *>(digest.data()), &size);
    digest.truncate(int(size));
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    return digest;
}
