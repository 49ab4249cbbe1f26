"""Numbers and tables in Markdown."""


def number(value, digits=3):
    """`value` with `digits` significant digits and a comma between thousands."""
    if value is None:
        return "–"
    if value == 0:
        return "0"
    magnitude = len(str(int(abs(value))))
    return f"{value:,.{max(digits - magnitude, 0) if abs(value) >= 1 else digits - 1}f}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" if i == 0 else "---:" for i in range(len(header)))
             + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])
