// A key as the screen knows it, whatever the terminal sends for it.
#pragma once

#include <QString>

struct ScreenKey
{
    enum Code
    {
        Character, // text
        Enter,
        LineFeed, // within a text
        Tab,
        Escape,
        Up,
        Down,
        Left,
        Right,
        Home,
        End,
        PageUp,
        PageDown,
        Backspace,
        Delete,
        DeleteWord,
        DeleteAll,
        Function,   // number
        PasteBegin, // what follows is text, whatever it is
        PasteEnd,
        Interrupt, // Ctrl-C
        Suspend,   // Ctrl-Z
        Redraw,    // Ctrl-L
    };

    Code code = Character;
    QString text;   // one code point
    int number = 0; // 1: F1
};
