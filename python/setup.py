import os
import sys

from setuptools import setup

sys.path.append(os.path.dirname(os.path.abspath(__file__)))
from build_kspool import pkg_config  # noqa: E402

setup(version=pkg_config("--modversion")[0], cffi_modules=["build_kspool.py:builder"])
