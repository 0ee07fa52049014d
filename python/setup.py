"""The version is that of the driver, which stands in CMakeLists.txt."""

import pathlib
import re

import setuptools

PROJECT = pathlib.Path(__file__).resolve().parent.parent / "CMakeLists.txt"
VERSION = re.search(r"^project\(.* VERSION ([0-9.]+)", PROJECT.read_text(), re.M)
assert VERSION, f"{PROJECT} has no version"
setuptools.setup(version=VERSION[1])
