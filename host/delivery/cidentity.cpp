#include "host/delivery/cidentity.h"
#include "host/text/reasons.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/settingslock.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <QFile>
#include <QFileInfo>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Io::retried;

namespace {

constexpr qint64 fileLimit = 64 * 1024;
constexpr int lockTimeoutMs = 5000;

struct FreeBio
{
    void operator()(BIO *owned) const { BIO_free(owned); }
};
using Bio = std::unique_ptr<BIO, FreeBio>;

/// Who asks for a password gets none, rather than a prompt on the terminal.
int noPassword(char *, int, int, void *)
{
    return -1;
}

/// The rights of the key file: its owner's. Where settings/ belongs to the system (root) and others may write
/// there, several users share the installation; they get to read it, as far as the configured rights of files
/// go.
mode_t keyFileMode(const QString &path)
{
    mode_t mode = S_IRUSR | S_IWUSR;
    struct stat directory = {};
    if (::stat(QFile::encodeName(QFileInfo(path).absolutePath()).constData(), &directory) != 0 ||
        directory.st_uid != 0)
        return mode;
    const int configured = CSettings().filePermissions();
    if ((directory.st_mode & S_IWGRP) && (configured & QFileDevice::ReadGroup))
        mode |= S_IRGRP;
    if ((directory.st_mode & S_IWOTH) && (configured & QFileDevice::ReadOther))
        mode |= S_IROTH;
    return mode;
}

/// Writes a new file under a name that must be free at the end. @return false on failure, errno tells why
bool createWhole(const QString &path, const QByteArray &contents, mode_t mode)
{
    const QByteArray name = QFile::encodeName(path);
    const QString newPath = path + QLatin1String(".new");
    const QByteArray newName = QFile::encodeName(newPath);
    ::unlink(newName.constData()); // of somebody who was killed
    CDescriptor file = TrustedFile::openNoFollow(newPath, O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (!file.isOpen())
        return false;
    bool isDone = Io::writeAll(file, contents) && ::fchmod(file.get(), mode) == 0 &&
                  retried([&] { return ::fsync(file.get()); }) == 0;
    if (isDone &&
        ::renameat2(AT_FDCWD, newName.constData(), AT_FDCWD, name.constData(), RENAME_NOREPLACE) != 0)
        isDone = (errno == EINVAL || errno == ENOSYS) && ::rename(newName.constData(), name.constData()) == 0;
    if (!isDone) {
        const int reason = errno;
        ::unlink(newName.constData());
        errno = reason;
        return false;
    }
    const CDescriptor directory(::open(QFile::encodeName(QFileInfo(path).absolutePath()).constData(),
                                       O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.isOpen())
        retried([&] { return ::fsync(directory.get()); });
    return true;
}

} // namespace

QByteArray fingerprintOf(x509_st *certificate)
{
    unsigned char *der = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    if (size <= 0)
        return QByteArray();
    QByteArray digest(CIdentity::fingerprintSize, '\0');
    const bool isDone = EVP_Digest(der, std::size_t(size), reinterpret_cast<unsigned char *>(digest.data()),
                                   nullptr, EVP_sha256(), nullptr) == 1;
    OPENSSL_free(der);
    return isDone ? digest : QByteArray();
}

void CIdentity::Free::operator()(evp_pkey_st *owned) const
{
    EVP_PKEY_free(owned);
}

void CIdentity::Free::operator()(x509_st *owned) const
{
    X509_free(owned);
}

QString CIdentity::filePath()
{
    return Global::settingsDir().absoluteFilePath(QStringLiteral("identity.pem"));
}

CIdentity::CIdentity() = default;
CIdentity::~CIdentity() = default;

QString CIdentity::prepare(const QString &path)
{
    const CTerminationGuard guard;
    QByteArray pem;
    for (int attempt = 0;; ++attempt) {
        const CDescriptor file = TrustedFile::openTrustedLinks(path);
        if (file.isOpen() && Io::readAll(file, &pem, fileLimit))
            break;
        if (errno != ENOENT || attempt > 0) {
            const QString reason = reasonOf(errno, path);
            const QString owner = QFileInfo(path).owner();
            return QStringLiteral("Ключ этой установки %1 не читается. %3. Если установку делят несколько "
                                  "пользователей, владелец файла (%2) может открыть его им для чтения")
                .arg(path, owner, reason);
        }
        const QString trouble = make(path);
        if (!trouble.isNull())
            return trouble;
    }

    const bool isWhole = read(pem);
    OPENSSL_cleanse(pem.data(), std::size_t(pem.size()));
    if (isWhole)
        return QString();
    return QStringLiteral(
               "Ключ этой установки %1 поврежден. Верните его из копии. Если копии нет, переименуйте "
               "его: будет сделан новый, и каждый собеседник должен будет подтвердить его командой "
               "abonent contact trust")
        .arg(path);
}

QString CIdentity::make(const QString &path)
{
    Global::makePath(QFileInfo(path).absoluteDir());
    CSettingsLock lock(path);
    if (lock.take(lockTimeoutMs)) {
        struct stat status = {};
        if (::lstat(QFile::encodeName(path).constData(), &status) == 0)
            return QString(); // another process was faster
        QByteArray pem = generate();
        if (pem.isEmpty())
            return QStringLiteral("OpenSSL не смог создать ключ этой установки");
        const bool isDone = createWhole(path, pem, keyFileMode(path));
        const int reason = errno;
        OPENSSL_cleanse(pem.data(), std::size_t(pem.size()));
        errno = reason;
        if (isDone || errno == EEXIST)
            return QString();
    }
    return QStringLiteral(
               "Не удалось создать ключ этой установки %1. %2. Его создает первый запуск на уровне 0 "
               "пользователем, который может менять настройки")
        .arg(path, reasonOf(errno, path));
}

QByteArray CIdentity::generate()
{
    const std::unique_ptr<EVP_PKEY, Free> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    const std::unique_ptr<X509, Free> cover(X509_new());
    const Bio bio(BIO_new(BIO_s_mem()));
    if (!key || !cover || !bio)
        return QByteArray();

    X509_NAME *name = X509_get_subject_name(cover.get());
    const bool isMade =
        X509_set_version(cover.get(), X509_VERSION_3) == 1 &&
        ASN1_INTEGER_set(X509_get_serialNumber(cover.get()), 1) == 1 &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>("abonent"), -1, -1, 0) == 1 &&
        X509_set_issuer_name(cover.get(), name) == 1 &&
        ASN1_TIME_set_string(X509_getm_notBefore(cover.get()), "20000101000000Z") == 1 &&
        ASN1_TIME_set_string(X509_getm_notAfter(cover.get()), "99991231235959Z") == 1 && // "has no end"
        X509_set_pubkey(cover.get(), key.get()) == 1 && X509_sign(cover.get(), key.get(), nullptr) > 0 &&
        PEM_write_bio_PKCS8PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
        PEM_write_bio_X509(bio.get(), cover.get()) == 1;
    ERR_clear_error();

    char *text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    if (!isMade || size <= 0)
        return QByteArray();
    const QByteArray pem(text, int(size));
    OPENSSL_cleanse(text, std::size_t(size));
    return pem;
}

bool CIdentity::read(const QByteArray &pem)
{
    const Bio keyBio(BIO_new_mem_buf(pem.constData(), pem.size()));
    const Bio coverBio(BIO_new_mem_buf(pem.constData(), pem.size()));
    if (!keyBio || !coverBio)
        return false;
    ownKey.reset(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassword, nullptr));
    ownCertificate.reset(PEM_read_bio_X509(coverBio.get(), nullptr, noPassword, nullptr));
    const bool isWhole = ownKey && ownCertificate && EVP_PKEY_is_a(ownKey.get(), "ED25519") &&
                         X509_check_private_key(ownCertificate.get(), ownKey.get()) == 1;
    ERR_clear_error();
    if (!isWhole) {
        ownKey.reset();
        ownCertificate.reset();
        return false;
    }
    ownFingerprint = fingerprintOf(ownCertificate.get());
    return true;
}
