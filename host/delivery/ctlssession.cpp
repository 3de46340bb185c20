#include "host/delivery/ctlssession.h"

#include "host/delivery/cidentity.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>

#if defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace {

constexpr int recordBytes = 16384;
constexpr int recordOverhead = 22;       // header 5, kind 1, tag 16
constexpr int ownWordsLimit = 64 * 1024; // what OpenSSL itself may add to outgoing: handshake, key updates
constexpr long certificateLimit = 16 * 1024; // ours has 400 bytes
constexpr int frameTypes = 8;                // of the protocol without TLS, see messageframe.h
constexpr unsigned char tlsHandshakeRecord = 22;
constexpr unsigned char tlsAlertRecord = 21;

bool hasAesInstructions()
{
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_cpu_supports("aes") != 0;
#elif defined(__aarch64__)
    return (::getauxval(AT_HWCAP) & HWCAP_AES) != 0;
#else
    return false;
#endif
}

/// Any certificate will do: who it belongs to is judged by its key, after the handshake has proved it.
int acceptCertificate(X509_STORE_CTX *, void *)
{
    return 1;
}

SSL_CTX *newContext(const CIdentity &identity)
{
    SSL_CTX *context = SSL_CTX_new(TLS_method());
    if (!context)
        return nullptr;
    // Without the instructions AES in software is slow and leaks by its timing.
    const char *suites = hasAesInstructions()
                             ? "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_256_GCM_SHA384"
                             : "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384";
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                                     SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA);
    SSL_CTX_set_mode(context, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_max_cert_list(context, certificateLimit);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_cert_verify_callback(context, acceptCertificate, nullptr);
    const bool isReady = SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1 &&
                         SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) == 1 &&
                         SSL_CTX_set_ciphersuites(context, suites) == 1 &&
                         SSL_CTX_set1_groups_list(context, "X25519:P-256") == 1 &&
                         SSL_CTX_set1_sigalgs_list(context, "ed25519") == 1 &&
                         SSL_CTX_set_num_tickets(context, 0) == 1 &&
                         SSL_CTX_use_certificate(context, identity.certificate()) == 1 &&
                         SSL_CTX_use_PrivateKey(context, identity.key()) == 1;
    if (isReady)
        return context;
    SSL_CTX_free(context);
    return nullptr;
}

/// What OpenSSL complains about, for people.
QString textOfError(unsigned long error)
{
    const int reason = ERR_GET_REASON(error);
    if (reason > SSL_AD_REASON_OFFSET) { // the peer has said so
        const int alert = reason - SSL_AD_REASON_OFFSET;
        if (alert == SSL_AD_PROTOCOL_VERSION)
            return QStringLiteral("Собеседник не умеет TLS 1.3: ему нужно обновить программу");
        return QStringLiteral("Собеседник прервал защищенное соединение (сообщение TLS %1)").arg(alert);
    }
    switch (reason) {
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_WRONG_SSL_VERSION:
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_NO_PROTOCOLS_AVAILABLE:
    case SSL_R_VERSION_TOO_LOW:
        return QStringLiteral("Собеседник не умеет TLS 1.3: ему нужно обновить программу");
    case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE:
        return QStringLiteral("Собеседник не показал свой ключ");
    case SSL_R_DECRYPTION_FAILED_OR_BAD_RECORD_MAC:
    case SSL_R_BAD_RECORD_TYPE:
    case SSL_R_DIGEST_CHECK_FAILED:
    case SSL_R_BAD_SIGNATURE:
        return QStringLiteral("Данные повреждены или подделаны в пути");
    default:
        const char *text = ERR_reason_error_string(error);
        return QStringLiteral("Защищенное соединение не удалось (TLS: %1)")
            .arg(QString::fromLatin1(text ? text : "unknown"));
    }
}

} // namespace

void CTlsSession::Free::operator()(ssl_ctx_st *owned) const
{
    SSL_CTX_free(owned);
}

void CTlsSession::Free::operator()(ssl_st *owned) const
{
    SSL_free(owned);
}

CTlsSession::CTlsSession(Side side, const CIdentity &identity)
    : context(identity.key() ? newContext(identity) : nullptr),
      ssl(context ? SSL_new(context.get()) : nullptr)
{
    BIO *bio = ssl ? BIO_new(bioMethod()) : nullptr;
    if (!bio) {
        fail(QStringLiteral("OpenSSL не готов к защищенному соединению"));
        return;
    }
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl.get(), bio, bio); // which owns it now
    if (side == Calling) {
        SSL_set_connect_state(ssl.get());
        handshake();
    } else {
        SSL_set_accept_state(ssl.get());
    }
}

CTlsSession::~CTlsSession() = default;

bio_method_st *CTlsSession::bioMethod()
{
    static BIO_METHOD *const method = [] {
        BIO_METHOD *made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "session");
        BIO_meth_set_write(made, bioWrite);
        BIO_meth_set_read(made, bioRead);
        BIO_meth_set_ctrl(made, bioControl);
        return made;
    }();
    return method;
}

int CTlsSession::bioWrite(bio_st *bio, const char *data, int size)
{
    const auto session = static_cast<CTlsSession *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    // A peer that makes OpenSSL answer and takes no answers does not make us grow.
    if (!session->isWriting && session->outgoingSize() + size > outgoingLimit + ownWordsLimit) {
        BIO_set_retry_write(bio);
        return -1;
    }
    session->outgoing.append(data, size);
    return size;
}

int CTlsSession::bioRead(bio_st *bio, char *data, int size)
{
    const auto session = static_cast<CTlsSession *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    int done = 0;
    while (done < size && !session->incoming.isEmpty()) {
        const QByteArray &first = session->incoming.first();
        const int piece = std::min(size - done, first.size() - session->incomingOffset);
        std::memcpy(data + done, first.constData() + session->incomingOffset, std::size_t(piece));
        done += piece;
        session->incomingOffset += piece;
        if (session->incomingOffset == first.size()) {
            session->incoming.removeFirst();
            session->incomingOffset = 0;
        }
    }
    session->incomingSize -= done;
    if (done > 0)
        return done;
    BIO_set_retry_read(bio);
    return -1;
}

long CTlsSession::bioControl(bio_st *, int command, long, void *)
{
    return command == BIO_CTRL_FLUSH || command == BIO_CTRL_DUP ? 1 : 0;
}

void CTlsSession::feed(const QByteArray &arrived)
{
    if (arrived.isEmpty() || !troubleText.isNull() || peerClosed)
        return;
    if (!judgeFirstBytes(arrived))
        return;
    if (incomingSize > 2 * incomingLimit) {
        fail(QStringLiteral("Принято больше, чем обработано: соединение прервано"));
        return;
    }
    incoming.append(arrived);
    incomingSize += arrived.size();
    if (!established)
        handshake();
}

void CTlsSession::feedEnd()
{
    endFed = true;
    if (!troubleText.isNull() || peerClosed)
        return;
    if (!established)
        fail(QStringLiteral("Соединение оборвано, пока договаривались о шифровании: возможно, у собеседника "
                            "старая версия, которая не шифрует"));
    else
        noticeCut();
}

QByteArray CTlsSession::takePlain(int maxSize)
{
    if (maxSize <= 0 || !established || !troubleText.isNull() || peerClosed)
        return QByteArray();
    const int most =
        std::min(maxSize, incomingSize + SSL_pending(ssl.get()) + (incomingSize > 0 ? recordBytes : 0));
    QByteArray plain(most, Qt::Uninitialized);
    int done = 0;
    while (done < most) {
        const int count = SSL_read(ssl.get(), plain.data() + done, most - done);
        if (count <= 0) {
            judgeResult(count);
            break;
        }
        done += count;
    }
    plain.truncate(done);
    noticeCut();
    return plain;
}

bool CTlsSession::write(std::string_view plain)
{
    if (!established || ownClosed || !troubleText.isNull() || outgoingSize() >= outgoingLimit)
        return false;
    if (plain.empty())
        return true;
    const int size = int(plain.size());
    reserveOutgoing(size + (size / recordBytes + 1) * recordOverhead);
    isWriting = true;
    const int count = SSL_write(ssl.get(), plain.data(), size);
    isWriting = false;
    if (count == size)
        return true;
    judgeResult(count);
    return false;
}

QByteArray CTlsSession::takeOutgoing(int maxSize)
{
    const int size = std::min(maxSize, outgoingSize());
    if (size <= 0)
        return QByteArray();
    if (outgoingTaken > 0 || size < outgoing.size()) {
        const QByteArray piece = outgoing.mid(outgoingTaken, size);
        outgoingTaken += size;
        if (outgoingTaken == outgoing.size()) {
            outgoing.resize(0);
            outgoingTaken = 0;
        }
        return piece;
    }
    // Whole, without a copy. The memory given away before serves next, if nobody else holds it any more.
    outgoing.swap(lent);
    if (outgoing.isDetached())
        outgoing.resize(0);
    else
        outgoing = QByteArray();
    return lent;
}

/// Makes room for @a size more bytes, so that records are appended without moving what is there.
void CTlsSession::reserveOutgoing(int size)
{
    if (outgoingTaken > 0) {
        outgoing.remove(0, outgoingTaken);
        outgoingTaken = 0;
    }
    if (outgoing.capacity() < outgoing.size() + size)
        outgoing.reserve(std::max(outgoing.size() + size, 2 * outgoing.size()));
}

QString CTlsSession::cipher() const
{
    return established ? QString::fromLatin1(SSL_get_cipher_name(ssl.get())) : QString();
}

void CTlsSession::close()
{
    if (established && !ownClosed && troubleText.isNull())
        SSL_shutdown(ssl.get());
    ERR_clear_error();
    ownClosed = true;
}

QByteArray CTlsSession::exportKey(const QByteArray &label, int length) const
{
    QByteArray key(established ? length : 0, '\0');
    if (key.isEmpty() || SSL_export_keying_material(ssl.get(), reinterpret_cast<unsigned char *>(key.data()),
                                                    std::size_t(length), label.constData(),
                                                    std::size_t(label.size()), nullptr, 0, 0) != 1)
        key.clear();
    ERR_clear_error();
    return key;
}

/// Says clearly who does not speak TLS at all, instead of what OpenSSL makes of its bytes.
bool CTlsSession::judgeFirstBytes(const QByteArray &arrived)
{
    constexpr int enough = 4; // a frame of the protocol without TLS begins with its type and three zeros
    if (firstBytes.size() == enough)
        return true;
    firstBytes += arrived.left(enough - firstBytes.size());
    const auto first = static_cast<unsigned char>(firstBytes.at(0));
    if (first == tlsHandshakeRecord || first == tlsAlertRecord)
        return true;
    if (firstBytes.size() < enough && first >= 1 && first <= frameTypes)
        return false; // nothing for OpenSSL either way
    if (first >= 1 && first <= frameTypes && firstBytes.endsWith(QByteArray(enough - 1, '\0')))
        fail(QStringLiteral(
            "Собеседник говорит по старому протоколу, без шифрования: ему нужно обновить программу"));
    else
        fail(QStringLiteral("Собеседник не шифрует или это не абонент: его первые байты не TLS"));
    return false;
}

void CTlsSession::handshake()
{
    const int result = SSL_do_handshake(ssl.get());
    if (result != 1) {
        judgeResult(result);
        return;
    }
    X509 *certificate = SSL_get0_peer_certificate(ssl.get());
    fingerprint = certificate ? fingerprintOf(certificate) : QByteArray();
    if (fingerprint.isEmpty())
        fail(QStringLiteral("Собеседник не показал свой ключ"));
    else
        established = true;
}

void CTlsSession::judgeResult(int result)
{
    const int error = SSL_get_error(ssl.get(), result);
    if (error == SSL_ERROR_ZERO_RETURN) {
        peerClosed = true;
        incoming.clear();
        incomingSize = 0;
    } else if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
        fail(textOfError(ERR_peek_last_error()));
    }
    ERR_clear_error();
}

/// Nothing more will come, everything has been looked at, and the peer has not said its end.
void CTlsSession::noticeCut()
{
    if (endFed && !peerClosed && troubleText.isNull() && incomingSize == 0 && SSL_pending(ssl.get()) == 0)
        fail(QStringLiteral("Соединение оборвано: конец разговора не подтвержден собеседником"));
}

void CTlsSession::fail(const QString &text)
{
    troubleText = text;
    incoming.clear();
    incomingOffset = 0;
    incomingSize = 0;
}
