"""python -m kavrel list | acquire: data on stdout or in files, messages on stderr."""
import argparse
import sys

import kavrel
from kavrel.output import save_plot, write_csv


def _parser():
    parser = argparse.ArgumentParser(prog="python -m kavrel", description="Drive KavrelDirect spectrometers.")
    commands = parser.add_subparsers(dest="command", required=True)

    listing = commands.add_parser("list", help="list the attached instruments")
    listing.add_argument("--sim", action="store_true", help="simulated instruments")

    acquire = commands.add_parser("acquire", help="acquire one spectrum")
    acquire.add_argument("--sim", action="store_true", help="simulated instruments")
    chosen = acquire.add_mutually_exclusive_group()
    chosen.add_argument("--serial", help="chip serial of the instrument's USB bridge")
    chosen.add_argument("--index", type=int, help="position in the list")
    acquire.add_argument("--protocol", choices=sorted(kavrel.PROTOCOLS), default="auto")
    acquire.add_argument("--integration-time-us", type=int, metavar="US")
    acquire.add_argument("--average", type=int, metavar="N")
    acquire.add_argument("-o", "--output", metavar="CSV", help="write the spectrum here (default: stdout)")
    acquire.add_argument("--plot", metavar="IMAGE", help="plot the spectrum into this image (PNG, SVG, PDF)")
    return parser


def _acquire(args):
    with kavrel.open(serial=args.serial, index=args.index, protocol=args.protocol, simulated=args.sim) as spec:
        if args.integration_time_us is not None:
            spec.integration_time_us = args.integration_time_us
        if args.average is not None:
            spec.average = args.average
        info = spec.info
        spectrum = spec.spectrum()
    print(
        f"{info.model} (SN {info.serial_number}, bridge {spec.chip_serial}): {len(spectrum)} points, "
        f"{int(spectrum.saturated.sum())} saturated",
        file=sys.stderr,
    )
    if args.output and args.output != "-":
        with open(args.output, "w", newline="") as stream:
            write_csv(spectrum, stream)
    elif not args.plot or args.output == "-":
        write_csv(spectrum, sys.stdout)
    if args.plot:
        save_plot(spectrum, info, args.plot)


def main(argv=None):
    args = _parser().parse_args(argv)
    try:
        if args.command == "list":
            for entry in kavrel.list_devices(simulated=args.sim):
                print(f"{entry.index}\t{entry.chip_serial}\t{entry.description}")
        else:
            _acquire(args)
    except (kavrel.KavrelError, OSError) as error:
        print(f"kavrel: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
