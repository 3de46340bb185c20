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
        Function,  // number
        Paste,     // text, whatever is in it; lines end with a line feed
        Interrupt, // Ctrl-C
        Suspend,   // Ctrl-Z
        Redraw,    // Ctrl-L
    };

    Code code = Character;
    QString text;   // of a character: one code point
    int number = 0; // 1: F1
};
