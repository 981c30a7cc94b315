#!/usr/bin/env python3
"""The whole loop: the real host program and plug-in post a report to the collector, which
stores it."""
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
import e2e_test  # noqa: E402
from collector_harness import Collector  # noqa: E402
from localserver import bencode_dict  # noqa: E402


class Loop(e2e_test.HostFixture):
    def test_the_plug_in_posts_and_the_collector_stores(self):
        collector = Collector("loop").start()
        try:
            vpn = self.module_file("vpn.dat", bencode_dict({b"connects": 42}))
            self.write_profile("<CustomerID>loop</CustomerID><IncludeCrashReport>false"
                               "</IncludeCrashReport>")
            self.start_host({"VpnPhoneHomeFile": vpn}, collector.port)
            self.assertTrue(e2e_test.wait_for(lambda: os.path.exists(e2e_test.OUTBOUND) and
                                              self.outbound() == [] and collector.stored()),
                            self.log() + collector.log())
            self.stop_host()
            exported = collector.exported()
            self.assertEqual(1, len(exported), exported)
            self.assertEqual(["feedback", "loop"], [exported[0]["kind"], exported[0]["customer_id"]])
        finally:
            collector.stop()


if __name__ == "__main__":
    unittest.main()
