"""Builds the package with the source tree it came from written into it (oltb/_source_tree.txt), so that a copy
installed elsewhere, in a virtual environment say, finds the libraries of that tree's build (build/release) when
none are installed. Its scratch files go to that tree's build/python. Everything else is in pyproject.toml."""

import pathlib
import shutil

from setuptools import setup
from setuptools.command.build_py import build_py

TREE = pathlib.Path(__file__).resolve().parent.parent
IN_SOURCE_TREE = (TREE / "api" / "oltb.h").is_file()


class BuildPyWithSourceTree(build_py):
    def run(self):
        # A module removed from the source would otherwise stay in the scratch copy and be installed again.
        shutil.rmtree(pathlib.Path(self.build_lib) / "oltb", ignore_errors=True)
        super().run()
        if IN_SOURCE_TREE:
            (pathlib.Path(self.build_lib) / "oltb" / "_source_tree.txt").write_text(str(TREE) + "\n")


options = {}
if IN_SOURCE_TREE:
    scratch = TREE / "build" / "python"
    scratch.mkdir(parents=True, exist_ok=True)
    options = {"build": {"build_base": str(scratch)}, "egg_info": {"egg_base": str(scratch)}}
setup(cmdclass={"build_py": BuildPyWithSourceTree}, options=options)
