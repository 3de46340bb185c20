// Any bytes as the file of contacts, and as a mail with a contact in it.
#include "host/delivery/contacttext.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    // What has been read is the same after writing and reading it once more, and then undamaged.
    const ParsedContacts parsed = contactsFromText(bytes);
    const QByteArray written = contactsToText(parsed.contacts);
    const ParsedContacts again = contactsFromText(written);
    if (!again.damage.isNull() || contactsToText(again.contacts) != written)
        std::abort();

    QString trouble;
    const std::optional<CContact> contact = contactFromMail(bytes, &trouble);
    if (contact.has_value() != trouble.isNull())
        std::abort();
    if (contact &&
        mailedContact(*contactFromMail(mailedContact(*contact), &trouble)) != mailedContact(*contact))
        std::abort();
    return 0;
}
