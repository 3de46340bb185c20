// The keys: which are shown at the bottom, and the page that explains all of them. Pure.
#pragma once

#include <QStringList>

#include <vector>

class CScreenState;

struct KeyHint
{
    const char *key;
    const char *word;
};

/// Those of use now, the most useful ones first: as many are shown as there is room for.
std::vector<KeyHint> keyHints(const CScreenState &state);

/// @param width cells
QStringList helpLines(int width);
