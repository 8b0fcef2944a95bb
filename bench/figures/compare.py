"""Prints the rows that two runs of the bench have in common, with their ratio."""
import argparse
import pathlib

from results import number, read_json


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("then", type=pathlib.Path, help="JSON of the earlier commit")
    parser.add_argument("now", type=pathlib.Path, help="JSON of the later one")
    options = parser.parse_args()
    then = {(one.group, one.what): one for one in read_json(options.then)}
    now = read_json(options.now)
    width = max((len(one.what) for one in now), default=0)
    print(f"{'':{width}}  {'then':>14}  {'now':>14}  now / then")
    for one in now:
        before = then.pop((one.group, one.what), None)
        if before is None:
            print(f"{one.what:{width}}  {'':>14}  {number(one.median) + ' ' + one.unit:>14}")
            continue
        ratio = f"{one.median / before.median:.2f}" if before.median else ""
        print(f"{one.what:{width}}  {number(before.median) + ' ' + one.unit:>14}  "
              f"{number(one.median) + ' ' + one.unit:>14}  {ratio:>10}")
    for before in then.values():
        print(f"{before.what:{width}}  {number(before.median) + ' ' + before.unit:>14}  {'':>14}")


if __name__ == "__main__":
    main()
