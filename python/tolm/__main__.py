from tolm.cli import run

run()
