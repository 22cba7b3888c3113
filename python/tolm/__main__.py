import sys

from tolm.cli import main

sys.exit(main())
