// Who this installation is: a key pair and the self-made certificate that shows its public half.
//
//   settings/identity.pem     private key (PKCS 8) and certificate (X.509), both PEM
//
// The key is Ed25519: 44 bytes of public key, no parameters that could be chosen badly, no random number in
// a signature that could leak it. The certificate is only a cover that TLS wants: its names and dates
// mean nothing, and nobody looks at them. What counts is the fingerprint of the public key.
//
// The file is made once, at first use, and never replaced by the program: another key would make this
// installation a stranger to all that have pinned it. It is its owner's alone; only where settings/ belongs
// to root and others may write there, hence several users share the installation, they may read it as well,
// as far as Permissions/filePermissions allows. Processes of every secrecy level read it; level 0 makes it.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>

struct evp_pkey_st;
struct x509_st;

class CIdentity
{
public:
    static constexpr int fingerprintSize = 32; // bytes

    /// settings/identity.pem of this installation.
    static QString filePath();

    CIdentity();
    ~CIdentity();

    CIdentity(const CIdentity &) = delete;
    CIdentity &operator=(const CIdentity &) = delete;

    /// Loads the key; makes it if there is none. Processes that make it at once end with one key.
    ///
    /// A file that cannot be read as a key is left as it is: a person has to decide.
    /// @param path elsewhere for tests
    /// @return null on success, else a text for people
    /// [any thread], once, before the identity is shared
    QString prepare(const QString &path = filePath());

    /// SHA-256 of the public key (SubjectPublicKeyInfo, DER); empty before prepare() has succeeded. [any
    /// thread]
    const QByteArray &fingerprint() const { return ownFingerprint; }

    /// For CTlsSession; null before prepare() has succeeded. The identity keeps them. [any thread]
    evp_pkey_st *key() const { return ownKey.get(); }
    x509_st *certificate() const { return ownCertificate.get(); }

private:
    struct Free
    {
        void operator()(evp_pkey_st *owned) const;
        void operator()(x509_st *owned) const;
    };

    QString make(const QString &path);
    bool read(const QByteArray &pem);
    QByteArray generate();

    std::unique_ptr<evp_pkey_st, Free> ownKey;
    std::unique_ptr<x509_st, Free> ownCertificate;
    QByteArray ownFingerprint;
};

/// SHA-256 of the public key in a certificate; empty when it has none.
QByteArray fingerprintOf(x509_st *certificate);
