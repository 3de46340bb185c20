// One side of TLS 1.3 over any byte stream: bytes in, bytes out, nothing else.
//
// Pure: no device, no clock, no Qt events. The caller carries the bytes:
//
//   channel.read()  --> feed()          takePlain()    --> the protocol
//   channel.write() <-- takeOutgoing()  write()        <-- the protocol
//
//     handshake --> established --close() or peer's close--> closed
//         |              |
//         +---------> trouble()            nothing goes any more; what is in takeOutgoing() still does
//
// Both sides show a certificate and prove that they hold its key. Whether the key is the right one is
// the caller's to judge, by peerFingerprint() as soon as isEstablished(), before it believes a byte of
// takePlain(). There is no certificate authority, no resumption, no early data, no other version.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <string_view>

class CIdentity;
struct bio_method_st;
struct bio_st;
struct ssl_ctx_st;
struct ssl_st;

/// One thread at a time.
class CTlsSession
{
public:
    enum Side
    {
        Calling,   // has placed the call; TLS client, speaks first
        Answering, // has answered it
    };

    /// Bytes in takeOutgoing() above which write() takes no more.
    static constexpr int outgoingLimit = 2 * 1024 * 1024;

    /// Fed bytes that wait for takePlain() above which wantsInput() is false.
    static constexpr int incomingLimit = 1024 * 1024;

    /// The calling side's first bytes are in takeOutgoing() at once.
    /// @param identity prepared; outlives the session
    CTlsSession(Side side, const CIdentity &identity);
    ~CTlsSession();

    CTlsSession(const CTlsSession &) = delete;
    CTlsSession &operator=(const CTlsSession &) = delete;

    /// Takes the bytes that have arrived; keeps a reference, no copy. After trouble() they are dropped.
    /// Twice incomingLimit without takePlain() is trouble: see wantsInput().
    void feed(const QByteArray &arrived);

    /// Whether feed() may be called: false while much that was fed waits for takePlain().
    bool wantsInput() const { return incomingSize < incomingLimit; }

    /// Says that no more bytes will come. Without the peer's close before, that is trouble(): what has
    /// arrived may have been cut off by anybody.
    void feedEnd();

    /// @return up to @a maxSize bytes of the peer's, in order; empty when there are none now
    QByteArray takePlain(int maxSize);

    /// Encrypts @a plain into takeOutgoing(): all of it, or nothing.
    ///
    /// Pieces of 64 KiB and more cost least: a record holds 16 KiB.
    /// @return false before isEstablished(), after close() or trouble(), and while outgoingSize() is
    ///         at outgoingLimit or above; the bytes are still the caller's then
    bool write(std::string_view plain);
    bool write(const QByteArray &plain)
    {
        return write(std::string_view(plain.constData(), std::size_t(plain.size())));
    }

    /// @return up to @a maxSize bytes for the channel, in order; empty when there are none. Not copied when
    ///         maxSize reaches outgoingSize(); memory is used again once the caller has let go of it.
    QByteArray takeOutgoing(int maxSize);
    int outgoingSize() const { return outgoing.size() - outgoingTaken; }

    /// Whether the handshake is done: the peer has proved that it holds the key of peerFingerprint().
    bool isEstablished() const { return established; }

    /// SHA-256 of the peer's public key, 32 bytes; empty before isEstablished().
    const QByteArray &peerFingerprint() const { return fingerprint; }

    /// "TLS_AES_128_GCM_SHA256"; null before isEstablished().
    QString cipher() const;

    /// Says the orderly end to the peer; takePlain() goes on until the peer has said its own.
    void close();

    /// Whether the peer has said the orderly end: everything it has written has been taken.
    bool isClosed() const { return peerClosed; }

    /// What went wrong, in Russian; null while nothing has. It stays. The text holds nothing of the peer's.
    const QString &trouble() const { return troubleText; }

    /// Key material that only the two ends of this session know (TLS exporter), for binding something to it.
    /// @param label begins with "EXPORTER-"
    /// @return @a length bytes; empty before isEstablished()
    QByteArray exportKey(const QByteArray &label, int length) const;

private:
    struct Free
    {
        void operator()(ssl_ctx_st *owned) const;
        void operator()(ssl_st *owned) const;
    };

    static bio_method_st *bioMethod();
    static int bioWrite(bio_st *bio, const char *data, int size);
    static int bioRead(bio_st *bio, char *data, int size);
    static long bioControl(bio_st *bio, int command, long number, void *pointer);

    bool judgeFirstBytes(const QByteArray &arrived);
    void handshake();
    void judgeResult(int result);
    void reserveOutgoing(int size);
    void noticeCut();
    void fail(const QString &text);

    std::unique_ptr<ssl_ctx_st, Free> context;
    std::unique_ptr<ssl_st, Free> ssl;

    QList<QByteArray> incoming; // fed and not yet read by OpenSSL
    int incomingOffset = 0;     // in the first of them
    int incomingSize = 0;       // of all of them

    QByteArray outgoing;   // for the channel
    int outgoingTaken = 0; // bytes of it that takeOutgoing() has given away
    QByteArray lent;       // what takeOutgoing() gave away whole; its memory comes back

    bool isWriting = false; // OpenSSL adds what write() has been given

    QByteArray firstBytes; // of the peer, at most four
    bool established = false;
    bool ownClosed = false;
    bool peerClosed = false;
    bool endFed = false;
    QByteArray fingerprint;
    QString troubleText;
};
