// Kernel statistics to model counters and rates; see CounterSampler.h.
#include "CounterSampler.h"

namespace IntfApp {

Interface::IntfStatistics statisticsOf(LinkStats const & s, double now) {
   Interface::IntfStatistics st;
   st.inMulticastPktsIs(s.rxMulticast);
   st.inUcastPktsIs(s.rxPackets >= s.rxMulticast ? s.rxPackets - s.rxMulticast : 0);
   st.outUcastPktsIs(s.txPackets);
   st.inOctetsIs(s.rxBytes);
   st.outOctetsIs(Brik::MaybeU63(s.txBytes));
   st.inDiscardsIs(s.rxDropped);
   st.outDiscardsIs(Brik::MaybeU63(s.txDropped));
   st.inErrorsIs(s.rxErrors);
   st.outErrorsIs(s.txErrors);
   st.lastUpdateIs(now);
   return st;
}

bool resumeFrom(DeviceCounters & c, Interface::IntfStatistics const & totals, Interface::IntfRates const & rates,
                double now, double maxAge) {
   double age = now - rates.statsUpdateTime();
   if (c.primed || !(age >= 0 && age <= maxAge)) return false;
   c.totals = totals;
   c.rates = rates;
   // The kernel's values these totals stand for (see statisticsOf): a
   // device whose counters went back meanwhile counts as restarted.
   LinkStats & l = c.last;
   l.rxMulticast = totals.inMulticastPkts();
   l.rxPackets = totals.inUcastPkts() + l.rxMulticast;
   l.txPackets = totals.outUcastPkts();
   l.rxBytes = totals.inOctets();
   l.txBytes = totals.outOctets().value();
   l.rxErrors = totals.inErrors();
   l.txErrors = totals.outErrors();
   l.rxDropped = totals.inDiscards();
   l.txDropped = totals.outDiscards().value();
   c.primed = true;
   return true;
}

namespace {

uint64_t step(uint64_t now, uint64_t before, bool * restarted) {
   if (now >= before) return now - before;
   *restarted = true;
   return 0;
}

} // namespace

void foldSample(DeviceCounters & c, LinkStats const & s, double now,
                Interface::LoadInterval const & intfInterval,
                Interface::LoadInterval const & globalInterval) {
   if (!c.primed) {
      c.totals = statisticsOf(s, now);
      c.rates = Interface::IntfRates();
      c.rates.statsUpdateTimeIs(now);
      c.last = s;
      c.primed = true;
      return;
   }
   bool restarted = false;
   LinkStats d;
   d.rxPackets = step(s.rxPackets, c.last.rxPackets, &restarted);
   d.txPackets = step(s.txPackets, c.last.txPackets, &restarted);
   d.rxBytes = step(s.rxBytes, c.last.rxBytes, &restarted);
   d.txBytes = step(s.txBytes, c.last.txBytes, &restarted);
   d.rxErrors = step(s.rxErrors, c.last.rxErrors, &restarted);
   d.txErrors = step(s.txErrors, c.last.txErrors, &restarted);
   d.rxDropped = step(s.rxDropped, c.last.rxDropped, &restarted);
   d.txDropped = step(s.txDropped, c.last.txDropped, &restarted);
   d.rxMulticast = step(s.rxMulticast, c.last.rxMulticast, &restarted);
   // Multicast is part of the packets: keep the two consistent when only
   // one of them restarted.
   if (d.rxMulticast > d.rxPackets) d.rxMulticast = d.rxPackets;
   c.restarts += restarted;
   c.last = s;

   Interface::IntfStatistics delta = statisticsOf(d, now);
   auto & t = c.totals;
   t.inUcastPktsIs(t.inUcastPkts() + delta.inUcastPkts());
   t.inMulticastPktsIs(t.inMulticastPkts() + delta.inMulticastPkts());
   t.outUcastPktsIs(t.outUcastPkts() + delta.outUcastPkts());
   t.inOctetsIs(t.inOctets() + delta.inOctets());
   t.outOctetsIs(Brik::MaybeU63(t.outOctets().value() + delta.outOctets().value()));
   t.inDiscardsIs(t.inDiscards() + delta.inDiscards());
   t.outDiscardsIs(Brik::MaybeU63(t.outDiscards().value() + delta.outDiscards().value()));
   t.inErrorsIs(t.inErrors() + delta.inErrors());
   t.outErrorsIs(t.outErrors() + delta.outErrors());
   t.lastUpdateIs(now);
   c.rates = Interface::updateIntfMovingAverages(c.rates, delta, now, intfInterval, globalInterval);
}

} // namespace IntfApp
