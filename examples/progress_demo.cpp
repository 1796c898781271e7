// A tour of DKProgress: a job of three files, each a child counter of its rows, worked on by
// four threads, drawn by DKProgressConsole (a bar on a terminal, plain lines otherwise).
#include <DorvikCore/DKProgress.h>

#include <chrono>
#include <iostream>
#include <thread>
#include <vector>

int main() {
  const char* files[] = {"customers.csv", "orders.csv", "invoices.csv"};
  DKSmartPtr<DKProgress> job = DKProgress::Create(DK_T("Importing"), 3);
  DKProgressConsole display(job);
  if (display.Start(display.IsBar() ? 100 : 500).Bad())
    return 1;
  for (const char* file : files) {
    DKSmartPtr<DKProgress> rows = job->AddChild(DKString::FromUTF8(file), 400);
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w)
      workers.emplace_back([&] {
        for (int row = 0; row < 100; ++row) {
          std::this_thread::sleep_for(std::chrono::milliseconds(2)); // the work on one row
          rows->Increment();
        }
      });
    for (std::thread& worker : workers)
      worker.join();
  }
  display.Stop();
  std::cout << "done: " << job->GetDone() << " of " << job->GetTotal() << " files\n";
  return 0;
}
