# SPDX-License-Identifier: Apache-2.0
"""The results as text."""


def verdict(row):
    return {True: "yes", False: "NO", None: "skipped"}[row["survived"]]


def line(row):
    figures = "; ".join(f"{name}: {value}" for name, value in row["figures"].items())
    text = f"{row['attack']:20} {verdict(row):8} {row['seconds']:6.1f} s  {row['tried']}"
    for more in (figures, row["skipped"], *row["failures"]):
        if more:
            text += f"\n{'':22}{more}"
    return text


def summary(rows):
    counts = {"yes": 0, "NO": 0, "skipped": 0}
    for row in rows:
        counts[verdict(row)] += 1
    return f"{counts['yes']} survived, {counts['NO']} not survived, {counts['skipped']} skipped"
