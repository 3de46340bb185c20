// What the user sees and does: which view, which contact, what is being written; what each key means there.
//
//            Tab, Enter                 F2                F3          F4        F1, ?
//   contacts <--------> text being written     transfers       journal     help
//                          | F7        | F8
//                          v           v
//                       a path     a new contact           Esc leads back from everywhere
//
// Pure: knows neither terminal nor disk. What is to be done in the world is returned as an action.
#pragma once

#include "host/screen/ceditor.h"
#include "host/screen/screencontents.h"
#include "host/screen/screenkey.h"

#include <QMap>
#include <QString>
#include <QStringList>

struct ScreenAction
{
    enum Kind
    {
        Nothing,
        SendText,   // to abonent
        SendPath,   // to abonent
        AddContact, // text: "ИМЯ АДРЕС[:ПОРТ]"
        Withdraw,   // number
        Retry,      // number
        StartResident,
        StopResident,
        Ping, // abonent
        Quit,
        Suspend,
        Redraw,
    };

    Kind kind = Nothing;
    QString abonent; // name
    QString text;
    QString number; // of the outbox entry
};

class CScreenState
{
public:
    enum View
    {
        Talk,
        Transfers,
        Journal,
        Help,
    };

    enum Focus
    {
        OnContacts,
        OnText,
    };

    enum Question
    {
        NoQuestion,
        WhichFile,
        WhichContact,
    };

    /// What a key does. @param contents as shown
    ScreenAction press(const ScreenKey &key, const ScreenContents &contents);

    /// Chooses anew where what was chosen is gone. After each change of the contents.
    void fit(const ScreenContents &contents);

    /// The abonent whose messages the user has before his eyes (filtered name); empty: none.
    QString read() const;

    /// Shown until the next key.
    void say(const QString &text) { said = text; }

    /// Takes back what could not be sent, if nothing else has been written meanwhile.
    void giveBack(const QString &contactKey, const QString &text);

    View view() const { return shownView; }
    Focus focus() const { return focused; }
    Question question() const { return asked; }
    const QString &contact() const { return chosen; } // filtered name; empty: there is none
    const QString &transfer() const { return chosenTransfer; }
    const QString &message() const { return said; }
    const QStringList &candidates() const { return paths; }
    int scroll() const { return scrolled; } // rows, from the end; of the help from the start
    const CEditor &editor() const;

    /// What the last picture has shown: rows of a page, and the scroll beyond which there is nothing.
    void setExtent(int pageRows, int mostScroll);

private:
    ScreenAction pressFunction(int number, const ScreenContents &contents);
    ScreenAction switchResident(const ScreenContents &contents);
    ScreenAction pressInQuestion(const ScreenKey &key);
    ScreenAction pressInContacts(const ScreenKey &key, const ScreenContents &contents);
    ScreenAction pressInText(const ScreenKey &key, const ScreenContents &contents);
    ScreenAction pressInTransfers(const ScreenKey &key, const ScreenContents &contents);
    ScreenAction pressInPages(const ScreenKey &key);
    ScreenAction answer();
    ScreenAction sendText(const ScreenContents &contents);
    ScreenAction quit();
    ScreenAction forContact(ScreenAction::Kind kind) const;
    bool edit(const ScreenKey &key);
    bool scrollBy(const ScreenKey &key);
    void move(const ScreenKey &key, const ScreenContents &contents);
    void show(View view);
    void ask(Question question);
    bool isConfirmed(const QString &warning);
    CEditor &currentEditor();
    bool hasDrafts() const;
    QString nameOf(const ScreenContents &contents) const;

    View shownView = Talk;
    View viewBeforeHelp = Talk;
    Focus focused = OnContacts;
    Question asked = NoQuestion;
    QString chosen;
    QString chosenTransfer;
    QString said;
    QString warned; // what the next key may confirm
    QStringList paths;
    int scrolled = 0;
    int page = 1;                  // rows
    QMap<QString, CEditor> drafts; // by contact
    CEditor answered;              // to a question
    QString chosenName;            // of the contact, as it is called
};
