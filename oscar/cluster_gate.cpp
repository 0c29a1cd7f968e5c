#include "oscar/cluster_gate.h"

#include "oscar/oscar_cluster_node_manager.h"

#include <ace/Log_Msg.h>

namespace oscar
{
namespace
{
/// `work` is "backup" or "restore".
void report_refusal(const std::string& state, const char* work)
{
  if (state == "failed")
    ACE_ERROR((LM_ERROR, "No node is selected to %s\n", work));
  else if (state == "success")
    ACE_DEBUG((LM_DEBUG, "This node is not selected to %s\n", work));
  else
    ACE_ERROR((LM_ERROR, "Wrong node selection state: %s\n", state.c_str()));
}

bool node_is_selected(const Job_Definition& definition, const std::string& instance, bool select_master,
                      bool backup)
{
  if (definition.rsrc_form().empty())
    return true;
  std::string state;
  if (Oscar_Cluster_Node_Manager::instance()->is_selected_node(
          instance.c_str(), definition.id(), definition.uid(), state, select_master, backup))
    return true;
  report_refusal(state, backup ? "backup" : "restore");
  return false;
}
} // namespace

bool cluster_lets_backup_run(const Job_Definition& definition, const std::string& instance,
                             bool select_master)
{
  return node_is_selected(definition, instance, select_master, true);
}

bool cluster_lets_restore_run(const Job_Definition& definition, const std::string& instance)
{
  return node_is_selected(definition, instance, true, false);
}
} // namespace oscar
