"""The wheel that the module was installed from, packed again from what is installed."""

from __future__ import annotations

from importlib.metadata import distribution
from pathlib import Path
from zipfile import ZipFile

#: What an installer adds beside the files of the wheel.
_OF_THE_INSTALLER = {"INSTALLER", "REQUESTED", "RECORD", "direct_url.json"}


def pack_installed_wheel(folder: Path) -> Path:
    found = distribution("quernbrook-expression-evaluator")
    metadata, record = found.read_text("WHEEL"), found.read_text("RECORD")
    assert metadata is not None and record is not None and found.files is not None
    (tag,) = (line.removeprefix("Tag: ") for line in metadata.splitlines() if "Tag: " in line)
    (own_record,) = (file for file in found.files if file.name == "RECORD")
    files = {str(file): file for file in found.files if file.name not in _OF_THE_INSTALLER}
    lines = [line for line in record.splitlines() if line.split(",")[0] in files]
    path = folder / f"quernbrook_expression_evaluator-{found.version}-{tag}.whl"
    with ZipFile(path, "w") as wheel:
        for name, file in files.items():
            wheel.write(found.locate_file(file), name)
        wheel.writestr(str(own_record), "\n".join([*lines, f"{own_record},,", ""]))
    return path
