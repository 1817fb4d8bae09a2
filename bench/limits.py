"""The limits that a benchmark checks, with what was measured."""


class Report:
    def __init__(self):
        self.rows = []

    def check(self, what, measured, at_most):
        self.rows.append((what, measured, at_most))

    def finish(self):
        """Prints a table of the limits; 1 when one of them is broken, else 0."""
        broken = [what for what, measured, at_most in self.rows if measured > at_most]
        print("\n| limit | measured | at most | |")
        print("|---|---:|---:|---|")
        for what, measured, at_most in self.rows:
            print(f"| {what} | {measured:.2f} | {at_most:.2f} | {'broken' if what in broken else 'kept'} |")
        print(flush=True)
        return 1 if broken else 0
