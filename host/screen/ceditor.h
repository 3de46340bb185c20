// A text being written: what is in it, where the cursor stands, how it lies on the screen. Pure.
#pragma once

#include <QString>
#include <QStringList>

class CEditor
{
public:
    const QString &text() const { return written; }
    bool isEmpty() const { return written.isEmpty(); }

    /// Replaces all, the cursor at the end.
    void setText(const QString &text);

    /// Puts text where the cursor is; line feeds and tabs stay, other control characters are left out.
    void insert(const QString &text);

    void left();
    void right();
    bool up();      // a line; false: it is the first one
    bool down();    // likewise
    void toStart(); // of the line
    void toEnd();
    void deleteBefore();
    void deleteAfter();
    void deleteWord(); // before the cursor
    void clear() { setText(QString()); }

    struct Layout
    {
        QStringList rows; // at least one, each at most as wide as asked
        int cursorRow = 0;
        int cursorCell = 0; // may be behind the last letter, but within the width
    };

    /// @param cells width, at least 2
    Layout layout(int cells) const;

private:
    int column() const;
    void moveTo(int lineStart, int characters);

    QString written;
    int cursor = 0;
};
