"""Values: what goes in comes out, by records, arrays and dataframes alike."""
import datetime
import math
import shutil
from decimal import Decimal

import numpy as np
import pandas as pd
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import zentra

LEAST = {"int": -(1 << 15), "long": -(1 << 31)}
DAYS = st.dates(datetime.date(1970, 1, 1), datetime.date(2068, 12, 31))
LETTERS = st.characters(blacklist_categories=["Cs"], blacklist_characters="\0")


def texts(length, pads):
    fitting = st.text(LETTERS, max_size=length).filter(lambda t: len(t.encode()) <= length)
    if pads:
        return fitting.map(lambda t: t + " " * (length - len(t.encode())))
    return fitting.map(lambda t: t.rstrip(" "))


@st.composite
def fields(draw, name):
    """A line of a layout and a strategy for its values."""
    kind = draw(st.sampled_from(["char", "locale", "bytes", "int", "long", "float", "double",
                                 "date", "days", "decimal", "boolean"]))
    null = draw(st.booleans())
    length = draw(st.integers(1, 30))
    whole = draw(st.sampled_from(["int", "long"]))
    if kind in ("char", "locale"):
        pads = draw(st.booleans())
        line, values = f"{kind} next {length}" + " blanks" * pads, texts(length, pads)
        if null:
            values = values.map(lambda t: t if t.strip(" ") else None)
    elif kind == "bytes":
        line, values = f"bytes next {length}", st.binary(min_size=length, max_size=length)
        values = values.map(lambda b: None if null and b == b"\xff" * length else b)
    elif kind in LEAST:
        line, values = f"{kind} next", st.integers(LEAST[kind] + null, -LEAST[kind] - 1)
    elif kind in ("float", "double"):
        line, values = f"{kind} next", st.floats(width=32 if kind == "float" else 64)
    elif kind == "date":
        form = draw(st.sampled_from(["YYYYMMDD", "DD.MM.YYYY", "YYMMDD", "MM/DD/YY", "YYYY-MM-DD"]))
        stored = draw(st.sampled_from(["char", "long"])) if form.isalpha() else "char"
        size = len(form) + draw(st.integers(0, 2)) if stored == "char" else ""
        line, values = f"{stored} next {size} date {form}", DAYS
    elif kind == "days":
        line = f"{whole} next date since {draw(st.sampled_from(['1989-12-31', '2000-02-29']))}"
        values = DAYS
    elif kind == "decimal":
        stored = draw(st.sampled_from([whole, "char"]))
        digits = min(length, 17) if stored == "char" else {"int": 4, "long": 9}[stored]
        decimals = draw(st.integers(1, 18))
        line = f"{stored} next {digits + 1 if stored == 'char' else ''} decimal {decimals}"
        values = st.integers(-10 ** digits + 1, 10 ** digits - 1).map(
            lambda n: Decimal(n).scaleb(-decimals))
    else:
        stored = draw(st.sampled_from([f"{whole} next", "char next 3"]))
        line, values = f"{stored} boolean {draw(st.sampled_from(['1 0', '-7 12']))}", st.booleans()
    if null:
        line, values = line + " null", st.one_of(st.none(), values)
    return f"{name} {line}", values


@st.composite
def tables(draw):
    """A layout and records of it."""
    made = [draw(fields(f"f{n}")) for n in range(draw(st.integers(1, 6)))]
    if draw(st.booleans()):
        made.append(("t char tail", st.text(LETTERS, max_size=40)))
    lines = ["id long next"] + [line for line, _ in made]
    rows = draw(st.lists(st.tuples(*(values for _, values in made)), max_size=5))
    names = [line.split()[0] for line in lines]
    return "\n".join(lines), [dict(zip(names, (n, *row))) for n, row in enumerate(rows)]


def same(a, b):
    if isinstance(a, float) and isinstance(b, float):
        return a == b and math.copysign(1, a) == math.copysign(1, b) or (a != a and b != b)
    return type(a) is type(b) and a == b


def from_numpy(field, value):
    """What a record has for an element of an array."""
    value = value.item() if isinstance(value, np.generic) else value
    absent = (value in (None, b"") if field.type in ("char", "locale") and field.meaning == "plain"
              else value is None or value != value or (field.meaning == "boolean" and value == -1))
    if field.may_be_null and absent and field.type != "bytes":
        return None
    if field.meaning == "decimal":
        return Decimal(value)
    if field.meaning == "boolean":
        return bool(value)
    if field.meaning == "plain" and field.type in ("int", "long"):
        return int(value)
    return value.decode() if isinstance(value, bytes) and field.type != "bytes" else value


@settings(max_examples=25, deadline=None, derandomize=True, database=None,
          suppress_health_check=list(HealthCheck))
@given(tables())
def test_what_goes_in_comes_out(tmp_path_factory, table):
    layout, records = table
    folder = tmp_path_factory.mktemp("values")
    name, copy = str(folder / "pair"), str(folder / "copy")
    with zentra.create(name, layout, "id") as file:
        for row in records:
            file.insert(row)
        for row in records:
            assert all(same(v, file[row["id"]][k]) for k, v in row.items())
            file.update(file[row["id"]])
    layout = zentra.Layout(layout)
    array = zentra.read_numpy(name, layout)
    frame = zentra.read_pandas(name, layout, decimals="exact")
    assert len(array) == len(frame) == len(records)
    for n, row in enumerate(records):
        for field in layout:
            found, wanted = array[n][field.name], row[field.name]
            if field.type == "bytes":
                nulls = b"\xff" * field.length
                assert bytes(found) == (nulls if wanted is None else wanted)
            elif field.meaning == "decimal" and wanted is not None:
                assert found == float(wanted)
            elif wanted is None and field.type in ("float", "double"):
                assert found != found
            elif isinstance(wanted, float):
                assert same(float(found), wanted)
            else:
                assert same(from_numpy(field, found), wanted), (field, found, wanted)
            given_value = frame[field.name][n]
            if wanted is None:
                assert pd.isna(given_value)
            elif isinstance(wanted, datetime.date):
                assert given_value == pd.Timestamp(wanted)
            else:
                assert (given_value == wanted) or same(float(given_value), wanted)
    zentra.write_pandas(frame, copy, layout, "id")
    with zentra.open(copy, layout) as file:
        for row in records:
            assert all(same(v, file[row["id"]][k]) for k, v in row.items())
    shutil.rmtree(folder)


def test_zero_bytes_and_other_forms_of_values(here):
    layout = ("id int 0\ntext char next 4 blanks\nwhen char next 10 date YYYY-MM-DD null\n"
              "sum char next 6 decimal 2\nday long next date since 1899-12-31\n")
    with zentra.create("pair", layout, "id", record=bytes) as file:
        for n, (text, when, digits, day) in enumerate([
                (b"a\0b\0", b"2024-02-29", b"000123", 1), (b"\0\0  ", b" " * 10, b"  +12 ", 45000),
                (b"    ", b"0001-01-01", b"-00012", -5000)]):
            file.insert(n.to_bytes(2, "big") + text + when + digits + day.to_bytes(4, "big", signed=True))
    with zentra.open("pair", layout) as file:
        rows = list(file)
        assert [r["text"] for r in rows] == ["a\0b\0", "\0\0  ", "    "]
        assert [r["when"] for r in rows] == [datetime.date(2024, 2, 29), None, datetime.date(1, 1, 1)]
        assert [r["sum"] for r in rows] == [Decimal("1.23"), Decimal("0.12"), Decimal("-0.12")]
        assert rows[1]["day"] == datetime.date(2023, 3, 16)
        array = zentra.read_numpy(file)
        assert array["sum"].tolist() == [1.23, 0.12, -0.12]
        assert array["when"][2] == np.datetime64("0001-01-01") and np.isnat(array["when"][1])
        assert array["day"][0] == np.datetime64("1900-01-01")


@pytest.mark.parametrize("field, data", [
    ("date YYYYMMDD", b"20240230"), ("date YYYYMMDD", b"2024023x"), ("date YYYYMMDD", b"00000000"),
    ("date YYYYMMDD", b"20241301"), ("date DDMMYYYY", b"31022024"), ("date YY-MM-DD", b"24-02-30"),
    ("date YY-MM-DD", b"24-02 30"), ("decimal 2", b"12.50   "), ("decimal 2", b"        "),
    ("decimal 2", b"+-5     "), ("decimal 2", b"5-      "), ("boolean yes no", b"YES     "),
    ("boolean yes no", b"        ")])
def test_what_has_no_meaning_has_none_anywhere(here, field, data):
    layout = f"id int 0\nvalue char next 8 {field}\n"
    with zentra.create("pair", layout, "id", record=bytes) as file:
        file.insert(b"\0\1" + data)
    for read in (lambda **how: zentra.open("pair", layout, **how)[1]["value"],
                 lambda **how: zentra.read_numpy("pair", layout, **how)["value"][0],
                 lambda **how: zentra.read_pandas("pair", layout, **how)["value"][0]):
        with pytest.raises(zentra.FieldError, match="record 1, field value") as caught:
            read()
        assert caught.value.record == 1 and caught.value.field == "value"
        absent = read(invalid="null")
        assert absent is None or pd.isna(absent) or absent == -1
