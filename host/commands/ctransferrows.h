// The transfers of the board as rows on the terminal, with a total when there are several.
#pragma once

#include "host/console/progressrow.h"
#include "host/conversation/ctransferboard.h"

#include <QElapsedTimer>
#include <QStringList>

#include <map>

class CTransferRows
{
public:
    /// @param ofBoard outlives the rows
    explicit CTransferRows(const CTransferBoard &ofBoard);

    /// The rows as they are now, none when nothing is on its way.
    QStringList rows(int cells);

private:
    const CTransferBoard &board;
    QElapsedTimer clock;
    std::map<const void *, CSpeedMeter> meters; // of transfers shown the last time
};
