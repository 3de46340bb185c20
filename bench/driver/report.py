"""Tables in Markdown: what was measured, and how it stands beside the bars."""

from statistics import median


def number(value):
    """Three figures that say something."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:.0f}"
    return f"{value:.3g}"


def table(head, lines):
    yield "| " + " | ".join(head) + " |"
    yield "|" + "---|" * len(head)
    for line in lines:
        yield "| " + " | ".join(line) + " |"
    yield ""


def spread(values):
    return [number(median(values)), number(min(values)), number(max(values))]


def figures(rounds):
    """Medians, smallest and largest of every figure, in the order of the first round."""
    lines = []
    for case, variant, metric in sorted_keys(rounds):
        values = [one[case, variant, metric] for one in rounds if (case, variant, metric) in one]
        lines.append([case, metric, variant, *spread(values)])
    return table(["case", "metric", "variant", "median", "min", "max"], lines)


def sorted_keys(rounds):
    """Cases as they came, inside a case by metric, the project first."""
    keys = list(dict.fromkeys(key for one in rounds for key in one))
    cases = list(dict.fromkeys(key[0] for key in keys))
    metrics = list(dict.fromkeys(key[2] for key in keys))
    return sorted(keys, key=lambda key: (cases.index(key[0]), metrics.index(key[2]),
                                         not key[1].startswith("project"), key[1]))


def ratios(bar, rounds):
    """The bar's value in each round that has both sides."""
    for one in rounds:
        own = one.get((bar.case, bar.variant, bar.metric))
        if bar.peer is None and own is not None:
            yield own
        other = one.get((bar.case, bar.peer, bar.metric))
        if own is not None and other:
            yield own / other


def verdict(bar, value):
    if bar.must is not None and not bar.reached(value, bar.must):
        return "**missed**"
    if bar.aim is not None:
        return "aim" if bar.reached(value, bar.aim) else ("must" if bar.must is not None else "not the aim")
    return "must"


def limits(bar):
    return ["" if limit is None else f"{bar.sense} {number(limit)}" for limit in (bar.must, bar.aim)]


def standing(bars, rounds):
    """The bars with the ratio of each, taken round by round."""
    lines = []
    for bar in bars:
        values = list(ratios(bar, rounds))
        if not values:
            continue
        what = "figure itself" if bar.peer is None else f"{bar.variant} / {bar.peer}"
        lines.append([bar.case, bar.metric, what, *spread(values), *limits(bar), verdict(bar, median(values))])
    return table(["case", "metric", "ratio", "median", "min", "max", "must", "aim", "reached"], lines)
