# SPDX-License-Identifier: Apache-2.0
import sys

from .cli import main

sys.exit(main())
