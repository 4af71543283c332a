#!/usr/bin/env python3
"""Reports an event with the Python package."""

import sys

import quorvane


def main() -> None:
    with quorvane.Reporter(quorvane.SessionInfo(session_id=1, client_type=5)) as reporter:
        reporter.report(12, 3, {"from": "Python", "took": 0.25})
        try:
            reporter.flush(timeout=10)
        except quorvane.QuorvaneError as error:
            sys.exit(f"report.py: {error}")
        print(f"{reporter.statistics.taken} of {reporter.statistics.reported} events taken")


main()
