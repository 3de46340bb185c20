// Changes to the settings that have passed their check, made all together or not at all.
//
// They may concern three files, which no system call replaces at once: what was saved is put back when a
// later file cannot be written.
#pragma once

#include <QHash>
#include <QString>
#include <QVariant>

#include <vector>

struct ChannelSettingsFile;
struct RecordKey;

class CSettingsChanges
{
public:
    /// Takes "key=value" into the changes; of several values for a key the last one counts.
    /// @return null on success, else what is wrong, in Russian
    QString add(const QString &assignment);

    /// Makes all changes or none.
    /// @param repair whether a damaged record may be replaced; keys that are not named get their defaults
    /// then
    /// @return null on success, else what is wrong, in Russian
    QString make(bool repair);

private:
    QString makeOthers(bool repair);
    QString saveGeneral() const;
    QString saveRecord(const ChannelSettingsFile &old, bool repair) const;

    std::vector<std::pair<const RecordKey *, int>> record;
    QHash<QString, QVariant> ini;
    std::vector<std::pair<QString, QString>> general;
};
