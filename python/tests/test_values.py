"""Values: what goes in comes out, by records, arrays and dataframes alike."""
import datetime
import json
import math
import os
import shutil
import subprocess
from decimal import Decimal
from random import Random

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


EXAMPLES = os.environ.get("ZENTRA_EXAMPLES")  # so many, and others at each run


@settings(max_examples=int(EXAMPLES or 25), deadline=None, derandomize=EXAMPLES is None, database=None,
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
            for key, value in row.items():  # where there is a null, pandas has no other NaN
                wanted = None if layout[key].may_be_null and value != value else value
                assert same(wanted, file[row["id"]][key])
    shutil.rmtree(folder)


def test_zero_bytes_and_other_forms_of_values(here):
    layout = ("id int 0\ntext char next 4 blanks\nwhen char next 10 date YYYY-MM-DD null\n"
              "sum char next 6 decimal 2\nday long next date since 1899-12-31\n")
    with zentra.create("pair", layout, "id", record=bytes) as file:
        for n, (text, when, digits, day) in enumerate([
                (b"a\0b\0", b"2024-02-29", b"000123", 1), (b"\0\0  ", b" " * 10, b"000012", 45000),
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
    ("decimal 2", b"+0000005"), ("decimal 2", b"-0000000"), ("decimal 2", b"5-      "), ("boolean yes no", b"YES     "),
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


def some_bytes(random, field):
    """Bytes that are often almost a value of the field."""
    kinds = {"date": [b"20240229", b"20230229", b"00010101", b"99991231", b"29022024", b"19000229",
                      b"20000229", b"20241301", b"29.02.24", b"1.1.2024", b"20240100"],
             "decimal": [b"1234567890123456789012345", b"-0000000000", b"00000000000000000", b"12.5"],
             "boolean": [b"Y", b"N", b"no", b"yes", b"NO"]}
    data = bytearray(random.choice(kinds.get(field.meaning, [b"x", "\u00fc\u20ac".encode(), b"a b", b""])))
    if random.random() < 0.3:
        data = bytearray(random.choice([b"\xff", b"\0", b"\x80\0\0\0", b" ", b"9"]) * field.length)
    data = (data + bytes([random.choice(b" 0 x")]) * field.length)[:field.length]
    for _ in range(random.choice([0, 0, 0, 1, 3])):
        data[random.randrange(field.length)] = random.choice(b" 0129-+.,xY\0\x7f\x80\xc3\xff")
    return bytes(data)


def test_a_layout_tells_the_encoding_of_its_texts(here):
    layout = zentra.Layout("id char 0 4\nencoding latin1\nname char next 6\n"
                           "town char next 6 encoding CP850\nnotes char tail\n")
    row = {"id": "\u00e9", "name": "J\u00f6rg", "town": "K\u00f6ln", "notes": "\u00e6\u00f8\u00e5"}
    with zentra.create("pair", layout, "id", save_layout=True) as file:
        file.insert(row)
        with pytest.raises(zentra.FieldError):
            file.insert({**row, "id": "2", "name": "5 \u20ac"})
    with zentra.open("pair", record=bytes) as file:
        assert list(file) == [b"\xc3\xa9  J\xf6rg  K\x94ln  \xe6\xf8\xe5"]
    frame = zentra.read_pandas("pair")
    assert frame.to_dict("records") == [row]
    zentra.write_pandas(frame, "again", layout, "id")
    with zentra.open("again", layout=layout) as file:
        assert dict(next(iter(file))) == row


@pytest.mark.skipif("ZENTRA" not in os.environ, reason="runs where CMake has built the program")
def test_values_are_those_of_the_dump(here):
    """Any bytes are the same values in records, in arrays and for zentra dump."""
    lines = ["date YYYYMMDD", "date DDMMYYYY null", "date DD.MM.YY null", "decimal 2", "decimal 3 null",
             "boolean Y N", "boolean yes no null", "", "null", "blanks", "blanks null"]
    layout = "".join(f"t{n}_{size} char next {size} {line}\n" for n, line in enumerate(lines)
                     for size in (1, 8, 15, 16, 17, 24, 32, 47, 57, 64, 65)
                     if size >= 8 or not line.startswith(("date", "boolean yes")))
    for kind in ("int", "long"):
        layout += "".join(f"{kind}{n} {kind} next {line}\n" for n, line in enumerate(
            ["", "null", "decimal 4", "boolean 1 0 null", "date since 1899-12-31"]))
    layout += ("d long next date YYYYMMDD\ne long next date YYMMDD null\nf float next\n"
               "g double next null\nb bytes next 5\n")
    layout = zentra.Layout(layout.replace("t0_8 char next", "t0_8 char 0"))
    random = Random(18)
    with zentra.create("pair", layout, None, record=bytes, save_layout=True) as file:
        for _ in range(300):
            file.insert(b"".join(some_bytes(random, field) for field in layout))
        rows = list(file)
    dumped = subprocess.run([os.environ["ZENTRA"], "dump", "--format", "jsonl", "pair"], check=True,
                            capture_output=True).stdout.decode().splitlines()
    array = zentra.read_numpy("pair", invalid="null")
    with zentra.open("pair", invalid="null", errors="surrogateescape") as file:
        for row, record, elements, line in zip(rows, file, array, dumped):
            for field, told in zip(layout, json.loads(line, parse_float=Decimal).values()):
                data = row[field.offset:field.offset + field.length]
                given, element = record[field.name], elements[field.name]
                assert same_everywhere(field, data, told, given, element), (field.name, data)


def same_everywhere(field, data, told, given, element):
    """Whether the value that the dump tells of a field's bytes is a record's, and that of an array."""
    has_none = isinstance(told, dict)  # but bytes in hexadecimal
    if field.type == "bytes":
        return bytes.fromhex(told) == data == given == bytes(element)
    if field.meaning == "plain" and field.type == "char":
        is_null = field.may_be_null and not data.strip(b" ")
        text = b"" if is_null else data if field.keeps_blanks else data.rstrip(b" ")
        return ((given is None) == is_null and (has_none or told == given)
                and (given or "").encode("utf-8", "surrogateescape") == text
                and bytes(element) == text.rstrip(b"\0"))
    if field.type in ("float", "double"):
        if told is None or has_none:
            return element != element or (has_none and math.isinf(element) and given == element)
        return given == element == type(element)(told)
    if told is None or has_none:
        return given is None and (element != element or element == -1)
    if field.meaning in ("date", "days"):
        told = datetime.date.fromisoformat(told)
    elif field.meaning == "decimal":
        return str(given) == str(told) and float(given) == element
    return given == told == element
