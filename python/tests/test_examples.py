"""The examples of the docstrings, the guide and README."""
import doctest
import re
from pathlib import Path

import hxcrate
import hxcrate.members
import hxcrate.paths
import pytest

TREE = Path(__file__).parents[2]


@pytest.mark.parametrize("module", [hxcrate, hxcrate.members, hxcrate.paths])
def test_docstrings(module):
    result = doctest.testmod(module, extraglobs={"hxcrate": hxcrate})
    assert result.failed == 0 and result.attempted > 0


def test_guide():
    examples = "\n".join(re.findall(r"```pycon\n(.*?)```", (TREE / "docs/guide.md").read_text(), re.DOTALL))
    test = doctest.DocTestParser().get_doctest(examples, {}, "guide.md", None, 0)
    result = doctest.DocTestRunner().run(test)
    assert result.failed == 0 and result.attempted > 10


def test_readme(capsys):
    with hxcrate.open("orders.st", "w") as store:
        store["2026/orders"] = b"tea"
    exec(re.search(r"```python\n(.*?)```", (TREE / "README.md").read_text(), re.DOTALL)[1])
    assert capsys.readouterr().out == "b'tea' ['invoices', 'orders']\n"
