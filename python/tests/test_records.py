"""Records: the mapping, ranges, changes, locks, transactions, and what is refused."""
import dataclasses
import datetime
import os
import pickle
import subprocess
import sys
import threading
import time
from decimal import Decimal

import pytest
from conftest import KEYS, LAYOUT, present, record

import zentra
from zentra import _zentra, errors


def ids(records):
    return [int(r["id"]) for r in records]


def test_a_pair_is_a_mapping(pair):
    with zentra.open(pair, mode="r+") as file:
        assert len(file) == 290 and file
        assert list(file) == present()
        assert list(reversed(file)) == present()[::-1]
        assert file["000007"] == record(7) and file.get("x", 5) == 5
        assert "000100" not in file and "000099" in file
        file["000100"] = {**record(100), "name": "new"}
        assert file["000100"]["name"] == "new" and len(file) == 291
        file["000100"] = {k: v for k, v in record(100).items() if k != "id"}
        assert file["000100"] == record(100)
        with pytest.raises(zentra.FieldError, match="another key"):
            file["000100"] = record(101)
        del file["000100"]
        with pytest.raises(KeyError) as caught:
            del file["000100"]
        assert isinstance(caught.value, zentra.NoRecordError) and caught.value.code == 111
        assert "000100" in str(caught.value)
        file.update({"id": "000001", "group": 77})
        assert file["000001"] == {**record(1), "group": 77}
        file.upsert({"id": "000001", "group": -5})
        file.upsert(record(105))
        assert file["000001"]["group"] == -5 and file["000105"] == record(105)


def test_ranges_are_those_of_a_sorted_list(pair):
    with zentra.open(pair) as file:
        name, group = file.index("name"), file.index("group", "id")
        by_name = sorted(present(), key=lambda r: r["name"])
        by_group = sorted(present(), key=lambda r: (-r["group"], r["id"]))
        for given, wanted in [
                (name, by_name),
                (name.equal("Müller 3"), [r for r in by_name if r["name"] == "Müller 3"]),
                (name.equal("Nobody"), []),
                (file.index("since").equal(None), [r for r in present() if r["since"] is None]),
                (file.index("since").until(None), [r for r in present() if r["since"] is None]),
                (name.prefix("Müller"), by_name),
                (name.prefix("Müller 6"), [r for r in by_name if r["name"] == "Müller 6"]),
                (name.prefix("Mü "), []),
                (name.between("Müller 2", "Müller 4"),
                 [r for r in by_name if "Müller 2" <= r["name"] <= "Müller 4"]),
                (name.between("Z", "A"), []),
                (name.since("Müller 5"), [r for r in by_name if r["name"] >= "Müller 5"]),
                (name.until("Müller 1"), [r for r in by_name if r["name"] <= "Müller 1"]),
                (group, by_group),
                (group.equal(0), [r for r in by_group if r["group"] == 0]),
                (group.prefix(0, "0002"), [r for r in by_group if r["group"] == 0 and
                                           r["id"].startswith("0002")]),
                (group.between((1, "000250"), (0, "000020")),
                 [r for r in by_group if (-1, "000250") <= (-r["group"], r["id"]) <= (0, "000020")]),
                (group.between(-1, 1), []),
                (file.by_number().between(95, 112), [r for r in present() if 95 <= int(r["id"]) <= 112]),
                (file.by_number().since(290), present()[-11:]),
                (file.by_number().until(0), [])]:
            assert list(given) == wanted
            assert list(reversed(given)) == wanted[::-1]
        assert file.index(1).first() == record(1) and name.equal("x").first() is None
        # Two that are under way do not disturb each other, nor do reads between their steps.
        pairs = []
        for a, b in zip(file, reversed(file)):
            pairs.append((file["000050"]["id"], int(a["id"]), int(b["id"])))
        assert pairs[:2] == [("000050", 1, 300), ("000050", 2, 299)] and len(pairs) == 290


def test_a_loop_notices_what_its_file_changes(pair):
    with zentra.open(pair, mode="r+") as file:
        seen = []
        for found in file:
            seen.append((int(found["id"]), found["group"]))
            if found["id"] == "000020":
                del file["000022"]
                file.update({"id": "000023", "group": 99})
        numbers = [n for n, _ in seen]
        assert 22 not in numbers and (23, 99) in seen and numbers == sorted(numbers)


@dataclasses.dataclass
class Row:
    id: str
    name: str
    since: object
    credit: Decimal
    active: bool
    rate: object
    group: int


def test_records_are_objects_or_bytes_too(pair):
    with zentra.open(pair, mode="r+", record=Row) as file:
        row = file["000002"]
        assert row == Row(**record(2))
        row.group = 9
        file.update(row)
        row.id = "000400"
        assert file.insert(row) == file.by_number().numbered().between(1, 400).first()[0] + 108
        with pytest.raises(zentra.FieldTypeError, match="no such attribute"):
            file.insert(object())
    with zentra.open(pair, mode="r+", record=bytes) as file:
        raw = file["000002"]
        assert raw[:6] == b"000002" and raw[-2:] == b"\0\x09"
        file.update(raw[:-2] + b"\0\x07")
        assert file.number(2)[-1:] == b"\x07"
        for wrong in (raw[:-1], raw + b"x"):
            with pytest.raises(zentra.RecordLengthError):
                file.insert(wrong)
        with pytest.raises(TypeError):
            file.insert({"id": "1"})


def test_a_pair_without_a_primary_key_goes_by_numbers(here):
    with zentra.create("pair", LAYOUT, None) as file:
        assert [file.insert(record(n)) for n in (3, 1, 2)] == [1, 2, 3]
        assert ids(file) == [3, 1, 2] and ids(reversed(file)) == [2, 1, 3]
        file[2] = {**record(1), "group": 5}
        del file[1]
        assert file[2]["group"] == 5 and 1 not in file and 0 not in file and 1 << 40 not in file
        for call in (lambda: file.update(record(1)), lambda: file.upsert(record(1))):
            with pytest.raises(zentra.NoPrimaryKeyError):
                call()
        with pytest.raises(TypeError):
            file["x"]


def test_records_with_a_tail(here):
    layout = "id long 0\nkind char next 2\nnotes char tail"
    with zentra.create("pair", layout, "id", longest=3000) as file:
        for n in range(50):
            file.insert({"id": n, "kind": "ab", "notes": "x " * n})
        file.update({"id": 7, "notes": "changed"})
        file.update({"id": 8, "kind": "c"})
        assert file[7]["notes"] == "changed" and file[8] == {"id": 8, "kind": "c", "notes": "x " * 8}
        assert [len(r["notes"]) for r in file.index(1).since(40)] == [2 * n for n in range(40, 50)]
        with pytest.raises(zentra.RecordLengthError, match="6 to 3000"):
            file.insert({"id": 99, "kind": "", "notes": "y" * 2995})


REFUSED = [
    ({"name": "x" * 21}, zentra.FieldError, "name", "21 bytes"),
    ({"name": "ab\ud800"}, zentra.FieldError, "name", "encoding"),
    ({"name": b"ab"}, zentra.FieldTypeError, "name", "a text is wanted, not bytes"),
    ({"name": None}, zentra.FieldTypeError, "name", "not NoneType"),
    ({"since": "2024-01-01"}, zentra.FieldTypeError, "since", "not str"),
    ({"since": datetime.datetime(2024, 1, 1)}, zentra.FieldTypeError, "since", "not datetime"),
    ({"credit": Decimal("1.001")}, zentra.FieldError, "credit", "more than 2 decimals"),
    ({"credit": Decimal("99999999999")}, zentra.FieldError, "credit", "does not fit long"),
    ({"credit": Decimal("NaN")}, zentra.FieldError, "credit", "no number"),
    ({"credit": Decimal("1e999999")}, zentra.FieldError, "credit", "too great"),
    ({"credit": 1.5}, zentra.FieldTypeError, "credit", "not float"),
    ({"active": "Y"}, zentra.FieldTypeError, "active", "a bool is wanted"),
    ({"active": 1}, zentra.FieldTypeError, "active", "not int"),
    ({"rate": "1"}, zentra.FieldTypeError, "rate", "a number is wanted"),
    ({"group": 40000}, zentra.FieldError, "group", "does not fit int"),
    ({"group": 10 ** 50}, zentra.FieldError, "group", "does not fit int"),
    ({"group": True}, zentra.FieldTypeError, "group", "not bool"),
    ({"gruop": 1}, zentra.FieldError, "gruop", "no such field"),
]


def test_values_that_do_not_fit_are_refused_by_name(pair):
    with zentra.open(pair, mode="r+") as file:
        for values, kind, field, why in REFUSED:
            with pytest.raises(kind, match=why) as caught:
                file.update({"id": "000001", **values})
            assert (caught.value.pair, caught.value.record, caught.value.field) == (
                pair, "000001", field)
            with pytest.raises(kind) as caught:
                file.insert({**record(999), **values})
            assert caught.value.record == "000999"
        with pytest.raises(zentra.FieldError, match="field group: it is missing"):
            file.insert({"id": "1", "name": "", "credit": 1, "active": True})
        with pytest.raises(zentra.FieldError, match="field id"):
            file["1234567"]
        assert len(file) == 290 and file["000001"] == record(1)


def test_bytes_without_meaning_are_told_or_null(pair):
    with zentra.open(pair, mode="r+", record=bytes) as file:
        good = file["000001"]
        file.update(good[:6] + b"\xff" + good[7:26] + b"20240231" + good[34:38] + b"?" + good[39:])
    with zentra.open(pair) as file:
        for call in (lambda: file["000001"], lambda: next(iter(file))):
            with pytest.raises(zentra.FieldError, match="'pair', record 1, field name: byte 0xff"):
                call()
    with zentra.open(pair, errors="replace") as file, pytest.raises(zentra.FieldError,
                                                                    match="field since.*20240231"):
        file["000001"]
    with zentra.open(pair, invalid="null", mode="r+", errors="surrogateescape") as file:
        found = file["000001"]
        assert found["name"][0] == "\udcff" and found["since"] is None and found["active"] is None
        file.update({"id": "000001", "name": found["name"], "since": None, "active": True})
    with zentra.open(pair, encoding="latin-1") as file:
        assert file["000001"]["name"].startswith("ÿ")


def test_what_is_wrong_with_names_layouts_and_keys(pair):
    for call, kind in [
            (lambda: zentra.open("none"), zentra.NoPairError),
            (lambda: zentra.open("none"), FileNotFoundError),
            (lambda: zentra.open("a\0b"), zentra.PairNameError),
            (lambda: zentra.open("x" * 200), zentra.PairNameError),
            (lambda: zentra.open(pair, mode="w"), zentra.ArgumentError),
            (lambda: zentra.open(pair, "id char 0 8\nid char 8 1"), zentra.LayoutError),
            (lambda: zentra.open(pair, "id char 0 800\n"), zentra.LayoutError),
            (lambda: zentra.open(pair, "id char 0 8\nx char tail"), zentra.LayoutError),
            (lambda: zentra.open(pair, "id \ud800 0 8\n"), zentra.LayoutError),
            (lambda: zentra.open(pair, "no such file"), zentra.LayoutError),
            (lambda: zentra.open(pair, "nosuchfile"), FileNotFoundError),
            (lambda: zentra.create(pair, LAYOUT, "id"), zentra.PairExistsError),
            (lambda: zentra.create("new", LAYOUT, "nix"), zentra.IndexKeyError),
            (lambda: zentra.create("new", LAYOUT, [["id"] * 9]), zentra.IndexKeyError),
            (lambda: zentra.create("new", LAYOUT, "id", longest=9), zentra.ArgumentError),
            (lambda: zentra.create("new", "a char 0 200", "a"), zentra.IndexKeyError),
            (lambda: zentra.open(pair).index("rate"), zentra.IndexKeyError),
            (lambda: zentra.open(pair).index(9), zentra.IndexKeyError),
            (lambda: zentra.open(pair).index("name").equal(1), zentra.FieldTypeError),
            (lambda: zentra.open(pair).index("group").prefix(1), zentra.FieldTypeError),
            (lambda: zentra.open(pair).insert(record(1)), zentra.ClosedError),
            (lambda: zentra.open(pair, mode="r+").insert(record(1)), zentra.DuplicateKeyError)]:
        with pytest.raises(kind) as caught:
            call()
        again = pickle.loads(pickle.dumps(caught.value))
        assert type(again) is type(caught.value) and str(again) == str(caught.value)
    assert not os.path.exists("new.dat") and not os.path.exists("new.idx")
    file = zentra.open(pair)
    file.close()
    file.close()
    for call in (lambda: file["000001"], lambda: list(file), lambda: len(file)):
        with pytest.raises(zentra.ClosedError):
            call()
    with open("damaged.idx", "wb") as idx, open("damaged.dat", "wb"):
        idx.write(b"x" * 4096)
    with pytest.raises((zentra.DamagedError, zentra.FormatError)) as caught:
        zentra.open("damaged")
    assert caught.value.code in (105, 171) and caught.value.pair == "damaged"
    assert all(name.endswith("Error") for name in errors.__all__)


def test_indexes_come_and_go(pair):
    with zentra.open(pair, mode="r+") as file, pytest.raises(zentra.NotExclusiveError):
        file.add_index("credit")
    with zentra.open(pair, mode="r+", exclusive=True) as file:
        file.add_index(zentra.Key("active", "since", duplicates=True))
        assert ids(file.index("active").equal(True, None)) == [
            n for n in range(10, 301, 10) if n != 100]
        with pytest.raises(zentra.DuplicateKeyError):
            file.add_index("active")
        file.drop_index("active")
        assert [index.names for index in file.indexes] == [["id"], ["name"], ["group", "id"],
                                                             ["since"]]
        with pytest.raises(zentra.IndexKeyError):
            file.drop_index(1)


ABROAD = """
import zentra
words = ["zebra", "Apfel", "äpfel", "Ähre", "apfel", "Öl", "Bär", "bar", "Zaun", "oben", "Apfelmus"]
with zentra.create("pair", "word locale 0 12 encoding latin1", zentra.Key("word", duplicates=True)) as pair:
    for word in words:
        pair.insert({"word": word})
with zentra.open("pair", "word locale 0 12 encoding latin1") as pair:
    index = pair.index("word")
    order = [r["word"] for r in pair]
    assert order.index("äpfel") < order.index("Bär") < order.index("Öl") < order.index("Zaun"), order
    assert [r["word"] for r in reversed(index)] == order[::-1]
    for low in order:
        assert [r["word"] for r in index.equal(low)] == [low]
        for high in order:
            a, b = order.index(low), order.index(high)
            assert [r["word"] for r in index.between(low, high)] == order[a:b + 1], (low, high)
            assert [r["word"] for r in reversed(index.between(low, high))] == order[a:b + 1][::-1]
    assert {r["word"] for r in index.prefix("Apfel")} == {"Apfel", "Apfelmus"}
"""


def test_ranges_in_the_order_of_a_locale(here):
    # A locale of UTF-8 takes four times as long to make.
    subprocess.run(["localedef", "-i", "de_DE", "-f", "ISO-8859-1", "./de_DE.iso88591"], check=True)
    subprocess.run([sys.executable, "-c", ABROAD], check=True,
                   env={**os.environ, "LOCPATH": str(here), "CLIENT_LOCALE": "de_de.iso88591"})


OTHER = """
import sys, time, zentra
with zentra.open("pair", mode="r+") as pair, pair.lock("000005"):
    print("locked", flush=True)
    sys.stdin.readline()
    time.sleep(0.3)
"""


@pytest.fixture
def other(pair):
    process = subprocess.Popen([sys.executable, "-c", OTHER], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "locked\n"
    yield process
    process.kill()
    process.communicate()


def test_locks_hold_against_other_processes(other):
    with zentra.open("pair", mode="r+") as file:
        began = time.monotonic()
        for wait in (False, 0.2):
            with pytest.raises(zentra.RecordLockedError) as caught, file.lock("000005", wait=wait):
                pass
            assert caught.value.code == 107 and caught.value.pair == "pair"
        assert 0.2 <= time.monotonic() - began < 2
        with pytest.raises(zentra.RecordLockedError):
            file.update(record(5))
        with pytest.raises(zentra.RecordLockedError), file.lock_all(wait=False):
            pass
        assert file["000005"] == record(5)
        # Whoever waits leaves the interpreter and the library to the others.
        steps = []
        waiter = threading.Thread(target=lambda: [steps.append("has it") for _ in [0]
                                                  if file.lock("000005").__enter__()])
        waiter.start()
        assert len(list(file)) == 290 and not steps
        other.stdin.write("go\n")
        other.stdin.flush()
        waiter.join(10)
        assert steps == ["has it"]


def test_ranges_of_parts_that_the_application_orders(here):
    """In the index all values of such a part are equal; behind it stands another part that is not."""
    collated = 16
    key = _zentra.KeyOf(_zentra.KF_DUPS, [(0, 2, collated), (2, 1, _zentra.KT_CHAR)])
    opened = _zentra.Open.build(b"pair", 3, 3, key, _zentra.ISINOUT | _zentra.ISEXCLLOCK)
    for data in (b"bb2", b"aa3", b"cc1", b"ab0"):
        opened.write(data)
    opened.close()
    with zentra.open("pair", "a char 0 2\nb char next 1\n") as file:
        def found(records):
            return [record["a"] + record["b"] for record in records]
        index = file.index("a")
        assert found(index) == ["ab0", "cc1", "bb2", "aa3"]
        assert found(index.between(("zz", "1"), ("aa", "2"))) == ["cc1", "bb2"]
        assert found(reversed(index.between(("zz", "1"), ("aa", "2")))) == ["bb2", "cc1"]
        assert found(index.between("bb", "bb")) == found(index.until("aa")) == found(index)
        assert found(index.equal("xx", "1")) == ["cc1"]
        assert found(index.prefix("a")) == ["ab0", "aa3"]
        assert found(reversed(index.prefix("a"))) == ["aa3", "ab0"]
        assert found(index.prefix("aa", "3")) == ["aa3"]


def test_locks_end_one_by_one(pair):
    def others_meet():
        script = """
import zentra
with zentra.open("pair", mode="r+") as file:
    for key in ("000001", "000002", "000003"):
        try:
            with file.lock(key, wait=False): pass
        except zentra.RecordLockedError: print(int(key), end="")
"""
        return subprocess.run([sys.executable, "-c", script], check=True, capture_output=True,
                              text=True).stdout
    with zentra.open(pair, mode="r+") as file, zentra.open(pair, mode="r+") as again:
        with file.lock("000001"):
            with file.lock("000002"), again.lock("000003"), again.lock("000001"):
                assert others_meet() == "123"
            assert others_meet() == "1"
            with pytest.raises(zentra.NoRecordError), file.lock("000100"):
                pass
            with file.lock_all(), file.lock(number=2):
                assert others_meet() == "123"
        assert others_meet() == ""
        with file.lock_all():
            with again.lock("000001"):
                again.update(again["000002"])
            assert others_meet() == "123"
        rest = iter(file)
        next(rest)
    with pytest.raises(zentra.ClosedError):
        list(rest)


def test_transactions_stand_together_or_not_at_all(pair):
    open("log", "x").close()
    before = zentra.open(pair, mode="r+")
    with zentra.log("log") as log:
        with pytest.raises(zentra.LogError):
            zentra.log("log")
        with zentra.open(pair, mode="r+") as file:
            with pytest.raises(RuntimeError), log.transaction():
                del file["000001"]
                file.update({"id": "000002", "group": 3})
                file.insert(record(500))
                raise RuntimeError
            assert file["000001"] == record(1) and file["000002"] == record(2)
            assert "000500" not in file
            with log.transaction():
                file.insert(record(500))
                with pytest.raises(zentra.TransactionError), log.transaction():
                    pass
                with pytest.raises(zentra.TransactionError, match="opened before the log"):
                    before.insert(record(501))
            assert "000500" in file and "000501" not in file
            before.insert(record(501))
    with pytest.raises(zentra.TransactionError), log.transaction():
        pass
    with pytest.raises(zentra.LogError):
        zentra.log("none")
    before.close()


def test_a_child_made_by_fork_is_refused(pair):
    open("log", "x").close()
    with zentra.open(pair, mode="r+") as file, zentra.log("log") as log, log.transaction():
        rest = iter(file)
        next(rest)
        child = os.fork()
        if child == 0:
            status = 1
            try:
                for call in (lambda: file["000001"], lambda: file.insert(record(900)),
                             lambda: list(file), lambda: len(file), lambda: list(rest)[20]):
                    with pytest.raises(zentra.ForkError, match="parent process"):
                        call()
                assert not log.in_transaction
                file.close()
                with zentra.open(pair) as mine:
                    assert mine["000002"] == record(2)
                status = 0
            finally:
                os._exit(status)
        assert os.waitpid(child, 0)[1] == 0
        assert file["000001"] == record(1) and len(list(rest)) == 289


def test_threads_share_a_file(pair):
    with zentra.open(pair, mode="r+") as file:
        failures = []

        def work(first):
            try:
                for n in range(first, first + 100):
                    file.insert(record(n))
                    assert file[f"{n:06d}"] == record(n)
                    file.update({"id": f"{n:06d}", "group": 5})
                assert len([r for r in file if first <= int(r["id"]) < first + 100]) == 100
            except BaseException as error:  # noqa: BLE001
                failures.append(error)
        threads = [threading.Thread(target=work, args=(1000 * n,)) for n in range(1, 5)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert not failures and len(file) == 690


def test_what_is_open_at_the_end_is_closed(here):
    script = f"""
import zentra
file = zentra.create("late", {LAYOUT!r}, "id", exclusive=True)
file.insert({{"id": "1", "name": "", "credit": 1, "active": True, "group": 1}})
keep = [file]; keep.append(keep)
"""
    subprocess.run([sys.executable, "-c", script], check=True)
    with zentra.open("late", LAYOUT) as file:
        assert len(file) == 1


assert KEYS
