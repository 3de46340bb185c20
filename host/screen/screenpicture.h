// The screen as rows of text: what is drawn, without a terminal. Pure.
//
//   80 cells and more than 64:            fewer:
//   title                                 title
//   contacts | conversation               contacts or conversation
//   ------------------------              --------
//   > text being written                  > text
//   what there is to say                  what there is to say
//   keys                                  keys
//
// No state is told by colour alone. Rows are as wide as the screen at most.
#pragma once

#include <QString>

#include <vector>

class CScreenState;
struct ScreenContents;

enum class ScreenStyle
{
    Plain,
    Title,  // reversed
    Chosen, // reversed
    Own,    // what we have written
    Strong,
    Faint,
    Alert,
};

struct ScreenSpan
{
    QString text; // safe for the terminal
    ScreenStyle style = ScreenStyle::Plain;
};

using ScreenRow = std::vector<ScreenSpan>;

struct ScreenPicture
{
    std::vector<ScreenRow> rows;
    int cursorRow = -1; // -1: no cursor
    int cursorCell = 0;
    int page = 1;       // rows that scroll
    int mostScroll = 0; // what CScreenState::scroll() may be
};

/// @param width, @param height of the terminal in cells; with fewer than 20 x 5 there is only a remark
ScreenPicture drawScreen(const CScreenState &state, const ScreenContents &contents, int width, int height);
